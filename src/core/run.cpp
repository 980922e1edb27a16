#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QTimer>
#include <cstdio>
#include <memory>

#include "core/application.h"
#include "core/command_line.h"
#include "log/version.h"
#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/linux_network.h"
#include "platform/program_folder.h"
#include "platform/quit_signals.h"
#include "platform/xdg_registry.h"

namespace postiq {

namespace {
bool displayAvailable()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

QStringList argumentsAfterProgramName(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
}
} // namespace

int runPostiq(int argc, char** argv)
{
    QuitSignals::blockInProcess(); // before any thread exists, so that every thread inherits it

    const CommandLine line = parseCommandLine(argumentsAfterProgramName(argc, argv), displayAvailable());
    if (!line.error.isEmpty()) {
        std::fprintf(stderr, "postiq: %s\n\n%s", qPrintable(line.error), qPrintable(usageText()));
        return ExitRefused;
    }
    if (line.showHelp) {
        std::printf("%s", qPrintable(usageText()));
        return ExitOk;
    }
    if (line.showVersion) {
        std::printf("Postiq %s\n", qPrintable(AppVersion()));
        return ExitOk;
    }

    std::unique_ptr<QCoreApplication> app;
    if (line.headless)
        app = std::make_unique<QCoreApplication>(argc, argv);
    else
        app = std::make_unique<QApplication>(argc, argv);

    const QString folder = line.folder.isEmpty() ? defaultProgramFolder() : line.folder;
    QString folderError;
    if (!prepareProgramFolder(folder, &folderError)) {
        std::fprintf(stderr, "postiq: %s\n", qPrintable(folderError));
        return ExitRefused;
    }

    HeadlessDesktop headlessDesktop;
    WidgetDesktop widgetDesktop;
    Desktop& desktop = line.headless ? static_cast<Desktop&>(headlessDesktop) : widgetDesktop;
    XdgRegistry registry;
    LinuxNetworkDiscovery network;
    SystemClock clock;

    Application application(QDir(folder).absolutePath(), {desktop, registry, network, clock});
    QuitSignals quitSignals;
    QObject::connect(&quitSignals, &QuitSignals::quitRequested, &application, &Application::quit);
    QObject::connect(&application, &Application::finished, app.get(), [] { QCoreApplication::exit(ExitOk); },
                     Qt::QueuedConnection);
    application.start();
    return app->exec();
}

} // namespace postiq
