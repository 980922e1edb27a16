#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>

#include "update/version_check.h"

namespace postiq {

class Application;
class Desktop;

// The program's face on a desktop, built by the desktop plugin: the widget application, its
// message boxes and, once the Application exists, the windows and the tray. The relay holds no
// widget code and loads no widget library of its own; only this interface crosses into the plugin.
class DesktopFace {
public:
    virtual ~DesktopFace() = default;
    // Message boxes, notices and the opening of files and addresses on the desktop.
    virtual Desktop& desktop() = 0;
    // The main window, the tray icons and the version check, wired to the application; call
    // before Application::start(). What it returns must go before the application does.
    virtual std::unique_ptr<QObject> attach(Application& application, const UpdateServer& updateServer) = 0;
};

// The plugin's one exported function. It creates the widget application first (argc and argv
// must outlive the face, which owns it), then the face.
using DesktopFaceFactory = DesktopFace* (*)(int& argc, char** argv);
inline constexpr char kDesktopFaceFactory[] = "postiqCreateDesktopFace";
inline constexpr char kDesktopPluginFile[] = "libpostiq_ui.so";

// Where the plugin is looked for, in order: beside the executable (a build tree), then in the
// installed library folder (bin/../lib/postiq).
QStringList desktopPluginPaths();

// Loads the plugin and builds the face; nothing, with the reason in *error, where no plugin is
// found or it does not load. The plugin stays loaded until the program ends.
std::unique_ptr<DesktopFace> loadDesktopFace(int& argc, char** argv, QString* error);

} // namespace postiq
