#include "platform/keyring.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

#include "platform/program_folder.h"

namespace postiq {

namespace {

bool sessionBusAdvertised()
{
    if (!qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        return true;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return !runtime.isEmpty() && QFileInfo::exists(runtime + QStringLiteral("/bus"));
}

} // namespace

QStringList keyringModulePaths(const QStringList& folders)
{
    QStringList paths;
    const QDir beside(executableFolder());
    for (const QString& folder : folders.isEmpty() ? QStringList{beside.path(), beside.filePath(QStringLiteral("../lib/postiq"))}
                                                   : folders)
        paths << QDir::cleanPath(QDir(folder).filePath(QString::fromLatin1(kKeyringModuleFile)));
    return paths;
}

std::unique_ptr<Keyring> SessionKeyring(const QStringList& moduleFolders)
{
    if (!sessionBusAdvertised())
        return nullptr;
    for (const QString& path : keyringModulePaths(moduleFolders)) {
        if (!QFileInfo::exists(path))
            continue;
        // Never unloaded: the keyring's jobs may still be running when its object goes.
        QLibrary module(path);
        using Factory = Keyring* (*)();
        if (const auto factory = reinterpret_cast<Factory>(module.resolve("postiq_make_keyring")))
            return std::unique_ptr<Keyring>(factory());
    }
    return nullptr; // no module: the password file serves
}

} // namespace postiq
