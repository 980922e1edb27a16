#include "core/desktop_plugin.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

#include "platform/program_folder.h"

namespace postiq {

QStringList desktopPluginPaths()
{
    const QDir beside(executableFolder());
    const QString name = QString::fromLatin1(kDesktopPluginFile);
    return {beside.filePath(name), QDir::cleanPath(beside.filePath(QStringLiteral("../lib/postiq/") + name))};
}

std::unique_ptr<DesktopFace> loadDesktopFace(int& argc, char** argv, QString* error)
{
    const QStringList paths = desktopPluginPaths();
    for (const QString& path : paths) {
        if (!QFileInfo::exists(path))
            continue;
        // Never unloaded: the face's code runs until the program ends.
        QLibrary library(path);
        library.setLoadHints(QLibrary::ResolveAllSymbolsHint);
        auto factory = reinterpret_cast<DesktopFaceFactory>(library.resolve(kDesktopFaceFactory));
        if (!factory) {
            *error = QStringLiteral("the desktop plugin %1 does not load: %2").arg(path, library.errorString());
            return nullptr;
        }
        return std::unique_ptr<DesktopFace>(factory(argc, argv));
    }
    *error = QStringLiteral("no desktop plugin (%1)").arg(paths.join(QStringLiteral(", ")));
    return nullptr;
}

} // namespace postiq
