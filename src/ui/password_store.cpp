#include "ui/password_store.h"

#include "config/settings.h"
#include "log/logs.h"
#include "platform/keyring.h"
#include "platform/owner_only_file.h"

namespace postiq {

namespace {
constexpr char kWriteSite[] = "FRM:CONFIGURATION[btnWrite_Click]";
}

void WritePasswordFile(Logs& logs, const QString& fileName, const QByteArray& password)
{
    logs.guarded(kWriteSite, [&] {
        const QString path = logs.folder() + u'/' + fileName;
        if (!WriteOwnerOnlyFile(path, password + '\n'))
            throw Fault(ErrAccessDenied, QStringLiteral("Cannot write '%1'").arg(path));
    });
}

void StorePassword(Settings& settings, Logs& logs, const QString& key, const QString& fileName,
                   const QByteArray& password, QObject* context, std::function<void(bool inKeyring)> stored)
{
    if (!settings.keyring) {
        WritePasswordFile(logs, fileName, password);
        stored(false);
        return;
    }
    settings.keyring->write(key, password, context,
                            [&logs, fileName, password, stored = std::move(stored)](const KeyringAnswer& answer) {
                                const bool inKeyring = answer.status == KeyringAnswer::Done;
                                if (!inKeyring)
                                    WritePasswordFile(logs, fileName, password);
                                stored(inKeyring);
                            });
}

} // namespace postiq
