#include "delivery/route_password.h"

#include <QDir>

#include "config/settings.h"
#include "config/smtp_password.h"
#include "log/logs.h"
#include "platform/keyring.h"
#include "platform/owner_only_file.h"

namespace postiq {

namespace {

QByteArray passwordFileProblem(const QString& path, const OwnerOnlyFile& file)
{
    const QByteArray name = "The password file " + path.toUtf8();
    const QByteArray mode = QByteArray::number(file.mode, 8).rightJustified(4, '0');
    switch (file.problem) {
    case OwnerOnlyFile::Missing:
        return name + " is missing: create it with mode 0600 (readable by its owner only)";
    case OwnerOnlyFile::TooOpen:
        return name + " has mode " + mode + ": it must have mode 0600 (readable by its owner only)";
    case OwnerOnlyFile::OtherOwner:
        return name + " belongs to another user: it must belong to the user running Postiq, with mode 0600";
    case OwnerOnlyFile::NotAFile:
        return name + " is not a plain file: it must be one, with mode 0600";
    default:
        return name + " cannot be read: it must be readable by its owner, with mode 0600";
    }
}

PasswordLookup readPasswordFile(const QString& programFolder, const QString& route)
{
    const QString name = route.isEmpty() ? QString::fromLatin1(kSmtpPasswordFile) : RoutePasswordFile(route);
    const QString path = QDir(programFolder).filePath(name);
    const OwnerOnlyFile file = ReadOwnerOnlyFile(path);
    PasswordLookup lookup;
    if (file.problem != OwnerOnlyFile::None) {
        lookup.problem = passwordFileProblem(path, file);
        return lookup;
    }
    const qsizetype end = file.content.indexOf('\n');
    lookup.password = end < 0 ? file.content : file.content.left(end);
    if (lookup.password.endsWith('\r'))
        lookup.password.chop(1);
    lookup.found = true;
    return lookup;
}

} // namespace

void LookUpPassword(Logs& logs, const Settings& settings, const QString& route, QObject* context,
                    std::function<void(const PasswordLookup&)> done)
{
    const QString folder = logs.folder();
    if (!settings.keyring) {
        done(readPasswordFile(folder, route));
        return;
    }
    const QString key = route.isEmpty() ? SmtpPasswordKey(folder) : RoutePasswordKey(folder, route);
    settings.keyring->read(key, context, [folder, route, done = std::move(done)](const KeyringAnswer& answer) {
        if (answer.status == KeyringAnswer::Done) {
            PasswordLookup lookup;
            lookup.found = true;
            lookup.password = answer.secret;
            done(lookup);
        } else {
            done(readPasswordFile(folder, route));
        }
    });
}

} // namespace postiq
