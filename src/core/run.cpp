#include <QCoreApplication>
#include <QDir>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include "core/application.h"
#include "core/command_line.h"
#include "core/control_channel.h"
#include "core/desktop_plugin.h"
#include "core/program_name.h"
#include "core/queue_commands.h"
#include "core/relay_request.h"
#include "core/relay_commands.h"
#include "core/route_check_command.h"
#include "core/sendmail.h"
#include "core/terminal_report.h"
#include "log/version.h"
#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/free_memory.h"
#include "platform/keyring.h"
#include "platform/linux_network.h"
#include "platform/network_state.h"
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

constexpr std::chrono::seconds kControlAnswerTime{10};

// The product's web server, unless POSTIQ_UPDATE_SERVER=host:port names another (tests point it at
// a local server).
UpdateServer updateServer()
{
    if (const auto chosen = parseUpdateServer(qEnvironmentVariable("POSTIQ_UPDATE_SERVER")))
        return *chosen;
    return {QString::fromLatin1(kProductWeb.host), 80};
}

// Sends one command to the relay running on the folder and waits for its answer in this process's
// only event loop. Nothing here creates or touches the folder.
int sendControlCommand(int argc, char** argv, const CommandLine& line)
{
    QuitSignals::unblockInProcess(); // Ctrl+C simply ends a waiting command
    QCoreApplication app(argc, argv);
    const QString folder = QDir(line.folder.isEmpty() ? defaultProgramFolder() : line.folder).absolutePath();

    ControlRequest request(controlServerName(folder), line.control, kControlAnswerTime);
    int status = ExitProgramError;
    QObject::connect(&request, &ControlRequest::finished, &app,
                     [&](ControlRequest::Outcome outcome, const QString& text) {
                         switch (outcome) {
                         case ControlRequest::Outcome::Done:
                             // "ok: what was done", "nothing: why": said as it is, without "ok".
                             if (text.startsWith(QLatin1String("ok: ")))
                                 std::printf("postiq: %s\n", qPrintable(text.mid(4)));
                             else if (text != QLatin1String("ok"))
                                 std::printf("postiq: %s\n", qPrintable(text));
                             status = ExitOk;
                             break;
                         case ControlRequest::Outcome::NotRunning:
                             std::fprintf(stderr, "postiq: no Postiq is running in %s\n", qPrintable(folder));
                             status = ExitRefused;
                             break;
                         case ControlRequest::Outcome::Failed:
                             std::fprintf(stderr, "postiq: --%s failed for the Postiq running in %s: %s\n",
                                          line.control.constData(), qPrintable(folder), qPrintable(text));
                             status = ExitProgramError;
                             break;
                         }
                         QCoreApplication::exit(status);
                     });
    QTimer::singleShot(0, &request, &ControlRequest::send); // once the loop runs, so that exit() counts
    app.exec();
    return status;
}

// --show-queue where a relay already runs on the folder: that relay opens its window, and this
// process ends. Nothing when none runs: this process becomes the relay.
std::optional<int> showRunningQueue(int argc, char** argv, const CommandLine& line)
{
    QCoreApplication app(argc, argv); // gone before the desktop's application is made
    const QString folder = QDir(line.folder.isEmpty() ? defaultProgramFolder() : line.folder).absolutePath();
    QString text;
    switch (AskRunningRelay(folder, "showqueue", kControlAnswerTime, &text)) {
    case ControlRequest::Outcome::Done:
        return ExitOk;
    case ControlRequest::Outcome::Failed:
        if (text.startsWith(QLatin1String("refused: ")))
            text = text.mid(9);
        std::fprintf(stderr, "postiq: %s\n", qPrintable(text));
        return ExitProgramError;
    case ControlRequest::Outcome::NotRunning:
        break;
    }
    if (line.headless) {
        std::fprintf(stderr, "postiq: --show-queue needs a desktop; --queue lists the queue\n");
        return ExitRefused;
    }
    return std::nullopt;
}

// Without the channel the relay still runs; only its control from the command line is lost, so
// the failure is reported and the relay goes on.
void openControlChannel(ControlChannel& channel, Desktop& desktop)
{
    QString error;
    if (!channel.listen(&error))
        desktop.diagnostic(QStringLiteral("postiq: the control channel cannot listen: ") + error);
}
} // namespace

int runPostiq(int argc, char** argv)
{
    QuitSignals::blockInProcess(); // before any thread exists, so that every thread inherits it

    if (const std::optional<int> status = RunByProgramName(argc, argv, argumentsAfterProgramName(argc, argv)))
        return *status;
    const CommandLine line = parseCommandLine(argumentsAfterProgramName(argc, argv), displayAvailable());
    if (line.sendmail && line.error.isEmpty())
        return RunSendmail(argc, argv, line.sendmailArguments, line.folder);
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

    if (!line.control.isEmpty())
        return sendControlCommand(argc, argv, line);
    if (!line.queueCommand.isEmpty())
        return RunQueueCommand(argc, argv, {line.queueCommand, line.queueArgument, line.json, line.folder});
    if (!line.checkRoute.isEmpty())
        return RunRouteCheckCommand(argc, argv, line.checkRoute, line.folder);
    if (line.showQueue) {
        if (const std::optional<int> status = showRunningQueue(argc, argv, line))
            return *status;
    }

    // The widget application comes with the desktop plugin; without it, or headless, the relay
    // runs on a core application and maps no widget or GUI library.
    std::unique_ptr<DesktopFace> face;
    if (!line.headless) {
        QString pluginError;
        face = loadDesktopFace(argc, argv, &pluginError);
        if (!face)
            std::fprintf(stderr, "postiq: %s; running headless\n", qPrintable(pluginError));
    }
    std::unique_ptr<QCoreApplication> app;
    if (!face) {
        // Qt's own event loop: the GLib one serves only a desktop, and would fault in its code.
        qputenv("QT_NO_GLIB", "1");
        app = std::make_unique<QCoreApplication>(argc, argv);
    }

    const QString folder = line.folder.isEmpty() ? defaultProgramFolder() : line.folder;
    QString folderError;
    if (!prepareProgramFolder(folder, &folderError)) {
        std::fprintf(stderr, "postiq: %s\n", qPrintable(folderError));
        return ExitRefused;
    }

    HeadlessDesktop headlessDesktop;
    const QString absoluteFolder = QDir(folder).absolutePath();
    TerminalReport terminal(TerminalReport::wanted(line.verbose, !face), absoluteFolder,
                            face ? face->desktop() : static_cast<Desktop&>(headlessDesktop));
    Desktop& desktop = terminal.desktop();
    XdgRegistry registry;
    LinuxNetworkDiscovery network;
    SystemClock clock;

    Application application(absoluteFolder, {desktop, registry, network, clock});
    application.setKeyring(SessionKeyring());
    application.setNetworkState(SystemNetworkState());
    std::unique_ptr<QObject> shell;
    if (face)
        shell = face->attach(application, updateServer());
    QObject::connect(&application, &Application::finished, QCoreApplication::instance(),
                     [] { QCoreApplication::exit(ExitOk); }, Qt::QueuedConnection);
    terminal.follow(application);
    application.start();
    if (line.showQueue)
        application.showQueueWindow();

    // Only now: a quit signal that came during start-up (perhaps while a question was on screen)
    // has waited, blocked, and is read at the first turn of the loop instead of inside start().
    QuitSignals quitSignals;
    QObject::connect(&quitSignals, &QuitSignals::quitRequested, &application, &Application::quit);

    // The instance lock is held from here on, so the channel may take over a stale socket name.
    ControlChannel control(controlServerName(absoluteFolder),
                           [&application](const QByteArray& verb, const QByteArray& argument) {
                               return CarryOutRelayCommand(application, verb, argument);
                           });
    openControlChannel(control, desktop);
    // Start-up is over once the loop has turned: what only it needed goes back.
    QTimer::singleShot(0, [] { ReleaseStartUpPages(); });
    return QCoreApplication::exec();
}

} // namespace postiq
