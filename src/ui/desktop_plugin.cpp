#include <QApplication>
#include <QSystemTrayIcon>

#include "core/desktop_plugin.h"
#include "ui/desktop_shell.h"
#include "ui/widget_desktop.h"

namespace postiq {
namespace {

class WidgetFace : public DesktopFace {
public:
    WidgetFace(int& argc, char** argv) : app_(argc, argv)
    {
        // Hidden windows and closed boxes never end the program; only the quit entry does.
        QApplication::setQuitOnLastWindowClosed(false);
    }

    Desktop& desktop() override { return desktop_; }

    std::unique_ptr<QObject> attach(Application& application, const UpdateServer& updateServer) override
    {
        return std::make_unique<DesktopShell>(
            application, desktop_, DesktopShell::Options{updateServer, QSystemTrayIcon::isSystemTrayAvailable()});
    }

private:
    QApplication app_; // first made, last gone: every box and window goes before it
    WidgetDesktop desktop_;
};

} // namespace
} // namespace postiq

extern "C" Q_DECL_EXPORT postiq::DesktopFace* postiqCreateDesktopFace(int& argc, char** argv)
{
    return new postiq::WidgetFace(argc, argv);
}
