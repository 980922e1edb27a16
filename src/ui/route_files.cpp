#include "ui/route_files.h"

#include <QDir>
#include <QFile>
#include <QHash>

#include "config/settings.h"
#include "config/smtp_password.h"
#include "delivery/route_table.h"
#include "log/dates.h"
#include "log/logs.h"
#include "platform/durable_file.h"
#include "platform/keyring.h"
#include "ui/password_store.h"
#include "ui/route_list.h"

namespace postiq {

namespace {

QString passwordPath(const QString& folder, const QString& route)
{
    return QDir(folder).filePath(RoutePasswordFile(route));
}

// The keyring has no way to delete, so a renamed route's entry is copied under its new key.
void carryKeyringEntry(Keyring& keyring, const QString& folder, const QString& from, const QString& to,
                       QObject* context)
{
    keyring.read(RoutePasswordKey(folder, from), context, [&keyring, folder, to, context](const KeyringAnswer& answer) {
        if (answer.status == KeyringAnswer::Done)
            keyring.write(RoutePasswordKey(folder, to), answer.secret, context, [](const KeyringAnswer&) {});
    });
}

} // namespace

bool WriteRoutes(Settings& settings, Logs& logs, RouteList& list, QObject* context, QString* error)
{
    const QString folder = logs.folder();
    const QString path = QDir(folder).filePath(QString::fromLatin1(kRoutesFile));
    if (!ReplaceDurably(path, RouteTable::format(list.routes()), error))
        return false;
    logs.MailLog(GMTDate(logs.clock()) + " Postiq: Writing Routes.ini");

    // The files of renamed routes are read before any file goes, so that two routes that swap
    // their names keep their passwords.
    QHash<QString, QByteArray> carried; // new name -> the old file's password
    for (const RouteList::Entry& entry : list.entries()) {
        if (entry.storedAs.isEmpty() || entry.storedAs == entry.route.name || !entry.password.isEmpty())
            continue;
        QFile old(passwordPath(folder, entry.storedAs));
        if (old.open(QIODevice::ReadOnly)) {
            QByteArray line = old.readLine(); // the password is the first line
            while (line.endsWith('\n') || line.endsWith('\r'))
                line.chop(1);
            carried.insert(entry.route.name, line);
        }
        if (settings.keyring)
            carryKeyringEntry(*settings.keyring, folder, entry.storedAs, entry.route.name, context);
    }
    for (const QString& name : list.forgotten())
        QFile::remove(passwordPath(folder, name));
    for (auto it = carried.cbegin(); it != carried.cend(); ++it)
        WritePasswordFile(logs, RoutePasswordFile(it.key()), it.value());
    for (const RouteList::Entry& entry : list.entries())
        if (!entry.password.isEmpty())
            StorePassword(settings, logs, RoutePasswordKey(folder, entry.route.name), RoutePasswordFile(entry.route.name),
                          entry.password, context, [](bool) {});
    list.markWritten();
    return true;
}

} // namespace postiq
