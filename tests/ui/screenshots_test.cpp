#include <QDir>
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QStackedWidget>
#include <QPushButton>
#include <QTableView>
#include <QTableWidget>
#include <QStandardPaths>
#include <QTreeWidget>
#include <gtest/gtest.h>

#include "support/mail_client.h"
#include "ui/queue_model.h"
#include "ui/desktop_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {
// Two accounts and a club, one falling back to another, for the routes page's picture.
const QByteArray kPictureRoutes = "[work]\nSenders = *@work.example\nServer = smtp://me@work.example@smtp.work.example\n"
                                  "Fallback = home\n\n[home]\nSenders = me@home.example\n"
                                  "Server = smtps://me@home.example@mail.home.example\n\n[club]\n"
                                  "Senders = *@club.example\nServer = mail.club.example:2525\n";
} // namespace

// Pictures of the windows for a person to look at, taken on a virtual X server with a tray host:
// the outer test starts Xvfb and a tray host and runs the inner one there. Without them it is skipped.
TEST(Screenshots, UnderXvfbWithATrayHost)
{
    const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
    // trayer holds the notification area without a window manager; tint2 serves where it is missing.
    QString trayHost = QStandardPaths::findExecutable(QStringLiteral("trayer"));
    if (trayHost.isEmpty())
        trayHost = QStandardPaths::findExecutable(QStringLiteral("tint2"));
    if (xvfbRun.isEmpty() || trayHost.isEmpty())
        GTEST_SKIP() << "xvfb-run or a tray host (trayer, tint2) is not installed";
    const QString folder = QStringLiteral(POSTIQ_SCREENSHOT_DIR);
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);

    QProcess run;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    environment.insert(QStringLiteral("POSTIQ_TAKE_SCREENSHOTS"), QStringLiteral("1"));
    run.setProcessEnvironment(environment);
    run.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QString inner = QStringLiteral("%1 & host=$!; sleep 2; %2 --gtest_filter='Screenshots.Inside*'; status=$?; "
                                         "kill $host; exit $status")
                              .arg(trayHost, QCoreApplication::applicationFilePath());
    run.start(xvfbRun, {QStringLiteral("-a"), QStringLiteral("-s"), QStringLiteral("-screen 0 1024x768x24"),
                        QStringLiteral("sh"), QStringLiteral("-c"), inner});
    ASSERT_TRUE(run.waitForFinished(90000));
    const QByteArray out = run.readAllStandardOutput();
    ASSERT_EQ(run.exitCode(), 0) << out.toStdString();
    if (out.contains("[  SKIPPED ]"))
        GTEST_SKIP() << "no X server came up";

    for (const char* name : {"main_window.png", "tray_menu.png", "screen.png", "queue_window.png", "config_frmOnStart.png",
                             "config_frmComputer.png", "config_frmParametres.png", "config_frmNetwork.png",
                             "config_frmServer.png", "config_frmRoutes.png", "config_frmRelay.png",
                             "config_frmDebug.png", "config_frmLanguage.png", "en_tray_menu.png", "en_main_window.png",
                             "en_config_frmServer.png", "en_config_frmRoutes.png"})
        EXPECT_TRUE(QFileInfo(folder + '/' + QLatin1String(name)).size() > 0) << name;
}

TEST(Screenshots, Inside)
{
    if (qEnvironmentVariableIsEmpty("POSTIQ_TAKE_SCREENSHOTS"))
        GTEST_SKIP() << "run by Screenshots.UnderXvfbWithATrayHost";
    const QString folder = QStringLiteral(POSTIQ_SCREENSHOT_DIR);
    // The tray host needs a moment to claim the notification area.
    spinUntil([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 5000);
    DesktopBench bench({}, QSystemTrayIcon::isSystemTrayAvailable());
    bench.start();

    MainWindow& window = bench.shell->mainWindow();
    window.show();
    Client client(bench.port); // a connection in the grid
    ASSERT_FALSE(client.answer().isEmpty());
    spinUntil([] { return false; }, 300);
    EXPECT_TRUE(window.grab().save(folder + QStringLiteral("/main_window.png")));

    QMenu& menu = *bench.shell->menu().menu;
    menu.popup(window.geometry().center());
    spinUntil([] { return false; }, 300);
    EXPECT_TRUE(menu.grab().save(folder + QStringLiteral("/tray_menu.png")));
    EXPECT_TRUE(QGuiApplication::primaryScreen()->grabWindow(0).save(folder + QStringLiteral("/screen.png")));
    menu.hide();

    // The queue window with a message in each folder.
    bench.application->settings().ActiveSettings.KeepLocal = true; // nothing leaves while the picture is taken
    bench.enqueue("=?utf-8?Q?R=C3=A9union_de_lundi?=", {"<bob@work.example>"});
    bench.fail(bench.enqueue("Photos", {"<carol@far.example>"}), QueueFolder::Deferred, "421 4.7.0 Try again later");
    bench.fail(bench.enqueue("=?iso-8859-1?Q?Facture_d=E9cembre?=", {"<nobody@gone.example>"}), QueueFolder::Error,
               "550 5.1.1 <nobody@gone.example>: Recipient address rejected");
    bench.shell->showQueueWindow();
    QueueWindow& queueWindow = *bench.shell->queueWindow();
    spinUntil([&] { return queueWindow.model().pendingHeads() == 0; }, 3000);
    queueWindow.resize(1320, 360);
    queueWindow.view().selectRow(1);
    spinUntil([] { return false; }, 300);
    EXPECT_TRUE(queueWindow.grab().save(folder + QStringLiteral("/queue_window.png")));
    queueWindow.close();

    writeFile(bench.path(QStringLiteral("Routes.ini")), kPictureRoutes);
    bench.shell->openConfiguration();
    ConfigurationDialog& dialog = *bench.shell->configurationDialog();
    auto& tree = *dialog.findChild<QTreeWidget*>(QStringLiteral("Categories"));
    auto& pages = *dialog.findChild<QStackedWidget*>(QStringLiteral("SSTabCat"));
    for (int i = 0; i < tree.topLevelItemCount(); ++i) {
        dialog.selectCategory(tree.topLevelItem(i)->data(0, Qt::UserRole).toString());
        spinUntil([] { return false; }, 100);
        EXPECT_TRUE(dialog.grab().save(folder + QStringLiteral("/config_") + pages.currentWidget()->objectName()
                                       + QStringLiteral(".png")));
    }
}

// The same windows with Language en: the menu, the main window, the outgoing server's page and
// the routes page.
TEST(Screenshots, InsideInEnglish)
{
    if (qEnvironmentVariableIsEmpty("POSTIQ_TAKE_SCREENSHOTS"))
        GTEST_SKIP() << "run by Screenshots.UnderXvfbWithATrayHost";
    const QString folder = QStringLiteral(POSTIQ_SCREENSHOT_DIR);
    spinUntil([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 5000);
    DesktopBench bench("Language\ten\r\n", QSystemTrayIcon::isSystemTrayAvailable());
    bench.writeLanguage("en", readFile(QStringLiteral(POSTIQ_SOURCE_DIR "/language/en.ini")));
    bench.start();

    MainWindow& window = bench.shell->mainWindow();
    window.show();
    spinUntil([] { return false; }, 300);
    EXPECT_TRUE(window.grab().save(folder + QStringLiteral("/en_main_window.png")));
    QMenu& menu = *bench.shell->menu().menu;
    menu.popup(window.geometry().center());
    spinUntil([] { return false; }, 300);
    EXPECT_TRUE(menu.grab().save(folder + QStringLiteral("/en_tray_menu.png")));
    menu.hide();

    writeFile(bench.path(QStringLiteral("Routes.ini")), kPictureRoutes);
    bench.shell->openConfiguration();
    ConfigurationDialog& dialog = *bench.shell->configurationDialog();
    dialog.selectCategory(QStringLiteral("cat_server_7"));
    spinUntil([] { return false; }, 100);
    EXPECT_TRUE(dialog.grab().save(folder + QStringLiteral("/en_config_frmServer.png")));
    // The routes page with its form open on the first route.
    dialog.selectCategory(QStringLiteral("cat_routes_8"));
    dialog.findChild<QTableWidget*>(QStringLiteral("lstRoutes"))->selectRow(0);
    dialog.findChild<QPushButton*>(QStringLiteral("btnRouteEdit"))->click();
    spinUntil([] { return false; }, 100);
    EXPECT_TRUE(dialog.grab().save(folder + QStringLiteral("/en_config_frmRoutes.png")));
}
