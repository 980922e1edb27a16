#include "core/route_check_command.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <cstdio>
#include <memory>

#include "config/defaults.h"
#include "config/settings.h"
#include "core/mail_folder.h"
#include "core/quiet_logs.h"
#include "delivery/route_check.h"
#include "delivery/route_table.h"
#include "platform/keyring.h"
#include "platform/linux_network.h"
#include "platform/quit_signals.h"

namespace postiq {

namespace {
constexpr int kCheckFailed = 1;
constexpr int kNoSuchRoute = 2;

// Why NAME is not a route the check can try: no file, or no such section that holds together.
QString missingRoute(const QString& name, const QString& path, const RouteTable& table)
{
    if (!QFile::exists(path))
        return QStringLiteral("no route '%1': there is no %2").arg(name, path);
    QStringList names;
    for (const SenderRoute& route : table.routes())
        names << route.name;
    return QStringLiteral("no route '%1' in %2 (%3)")
        .arg(name, path,
             names.isEmpty() ? QStringLiteral("it holds no usable route")
                             : QStringLiteral("its routes: ") + names.join(QStringLiteral(", ")));
}
} // namespace

int RunRouteCheckCommand(int argc, char** argv, const QString& routeName, const QString& folderOption)
{
    QuitSignals::unblockInProcess(); // Ctrl+C simply ends a waiting check
    qputenv("QT_NO_GLIB", "1");      // as the headless relay runs, keyring module included
    QCoreApplication app(argc, argv);
    const QString folder = MailFolder(folderOption);
    const QString path = QDir(folder).filePath(QString::fromLatin1(kRoutesFile));

    // A faulty section is named, whichever route was asked for: it may be the one.
    const RouteTable table = RouteTable::load(folder);
    for (const QString& error : table.errors())
        std::fprintf(stderr, "postiq: %s\n", qPrintable(error));
    const SenderRoute* route = table.find(routeName);
    if (!route) {
        std::fprintf(stderr, "postiq: %s\n", qPrintable(missingRoute(routeName, path, table)));
        return kNoSuchRoute;
    }

    QuietLogs quiet(folder);
    Settings settings;
    LinuxNetworkDiscovery network;
    LoadDefault(settings, network); // the host name that EHLO gives, as the relay's
    const std::unique_ptr<Keyring> keyring = SessionKeyring();
    settings.keyring = keyring.get();

    RouteCheck check(quiet.logs, settings, *route);
    int status = kCheckFailed;
    QObject::connect(&check, &RouteCheck::finished, &app, [&status](bool ok, const QString& report) {
        std::printf("%s\n", qPrintable(report));
        status = ok ? 0 : kCheckFailed;
        QCoreApplication::exit(status);
    });
    check.start(); // its answer comes from the loop, never from inside start()
    QCoreApplication::exec();
    return status;
}

} // namespace postiq
