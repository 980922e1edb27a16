#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QMenuBar>
#include <QTableWidget>
#include <QTcpServer>
#include <QTcpSocket>
#include <gtest/gtest.h>

#include "support/mail_client.h"
#include "ui/desktop_bench.h"
#include "ui/widget_desktop.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// The entries of the tray menu in order, separators by name, with their captions.
QStringList menuLayout(const QMenu& menu)
{
    QStringList rows;
    for (const QAction* action : menu.actions())
        rows << action->objectName() + '=' + (action->isSeparator() ? QStringLiteral("-") : action->text());
    return rows;
}

} // namespace

TEST(DesktopShell, MenuEntriesInOrderWithQuitAsDefaultAndStartStopFollowingTheService)
{
    DesktopBench bench("LaunchStart\tOff\r\n");
    bench.start();
    TrayMenu& menu = bench.shell->menu();

    EXPECT_EQ(menuLayout(*menu.menu),
              (QStringList{"mnuopen=Ouvrir", "mnuqueue=File d'attente ...", "mnuwintop=Fenêtre toujours devant", "mnusep0=-",
                           "mnuconfig=Configuration ...", "mnusep1=-", "mnustart=Démarrer", "mnustop=Arrêter",
                           "mnureload=Recharger", "mnuflush=Forcer (deferred)", "mnuseelog=.: Voir fichier log ::",
                           "mnuseeerrorlog=.: Voir fichier error ::", "mnusep4=-",
                           "mnuupdate=Vérifier mises à jour", "mnusep2=-", "mnuhelp=Aide", "mnusep3=-",
                           "mnuquit=Quitter", "mnusystrayevent=Nouvelle version"}));
    EXPECT_FALSE(menu.mnusystrayevent->isVisible());
    EXPECT_EQ(menu.menu->defaultAction(), menu.mnuquit);
    EXPECT_TRUE(menu.mnuwintop->isCheckable());
    EXPECT_EQ(bench.shell->trayIcon().contextMenu(), menu.menu);

    // Stopped at start (LaunchStart Off).
    EXPECT_TRUE(menu.mnustart->isEnabled());
    EXPECT_FALSE(menu.mnustop->isEnabled());
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Arrêté]"));
    EXPECT_TRUE(bench.shell->trayIcon().isVisible());

    menu.mnustart->trigger();
    EXPECT_TRUE(bench.application->serviceStarted());
    EXPECT_FALSE(menu.mnustart->isEnabled());
    EXPECT_TRUE(menu.mnustop->isEnabled());
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Démarré]"));

    menu.mnustop->trigger();
    EXPECT_FALSE(bench.application->serviceStarted());
    EXPECT_TRUE(menu.mnustart->isEnabled());
    EXPECT_FALSE(menu.mnustop->isEnabled());
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Arrêté]"));
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST(DesktopShell, MainWindowShowsTitleAndResolverAndOnlyHidesOnClose)
{
    DesktopBench bench;
    bench.start();
    MainWindow& window = bench.shell->mainWindow();

    EXPECT_TRUE(window.windowTitle().startsWith("Postiq - Version 3.0 ["));
    EXPECT_TRUE(window.windowTitle().endsWith("]"));
    EXPECT_EQ(window.findChild<QLabel*>("lblTitle")->text(), QString("Postiq - Version 3.0"));
    EXPECT_EQ(window.findChild<QLabel*>("lblDnsVersion")->text(), QString("DNSLookup version detected: 3.0"));
    EXPECT_FALSE(window.isVisible()); // the tray is the way in

    bench.shell->trayActivated(QSystemTrayIcon::Trigger); // a single click does nothing
    EXPECT_FALSE(window.isVisible());
    bench.shell->trayActivated(QSystemTrayIcon::DoubleClick);
    EXPECT_TRUE(window.isVisible());
    window.close();
    EXPECT_FALSE(window.isVisible());
    EXPECT_TRUE(bench.application->serviceStarted()); // closing the window ends nothing

    bench.shell->menu().mnuopen->trigger();
    EXPECT_TRUE(window.isVisible());
    bench.shell->menu().mnuwintop->trigger();
    EXPECT_TRUE(window.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(window.isVisible());
    bench.shell->menu().mnuwintop->trigger();
    EXPECT_FALSE(window.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
}

TEST(DesktopShell, WithoutNotificationAreaTheWindowShowsAtStartAndCarriesTheMenu)
{
    DesktopBench bench({}, /*trayAvailable=*/false);
    bench.start();
    MainWindow& window = bench.shell->mainWindow();
    EXPECT_TRUE(window.isVisible());
    EXPECT_FALSE(bench.shell->trayIcon().isVisible());
    auto* bar = window.findChild<QMenuBar*>("mnubar");
    ASSERT_NE(bar, nullptr);
    ASSERT_EQ(bar->actions().size(), 1);
    EXPECT_EQ(bar->actions().first()->menu(), bench.shell->menu().menu);
}

TEST(DesktopShell, QuitStopsTheServiceAndTakesTheIconsAway)
{
    DesktopBench bench;
    bench.start();
    ASSERT_TRUE(bench.application->serviceStarted());
    bench.shell->mainWindow().show();
    bool finished = false;
    QObject::connect(bench.application.get(), &Application::finished, [&] { finished = true; });

    bench.shell->menu().mnuquit->trigger();
    EXPECT_TRUE(finished);
    EXPECT_FALSE(bench.application->serviceStarted());
    EXPECT_FALSE(bench.shell->trayIcon().isVisible());
    EXPECT_FALSE(bench.shell->mainWindow().isVisible());
}

TEST(DesktopShell, ConnectionsGridFollowsAClientThroughItsDialogue)
{
    DesktopBench bench;
    bench.start();
    QTableWidget& grid = bench.shell->mainWindow().grid();
    EXPECT_EQ(grid.rowCount(), 0);

    Client client(bench.port);
    ASSERT_EQ(client.answer().left(3), QByteArray("220"));
    ASSERT_EQ(grid.rowCount(), 1);
    EXPECT_EQ(grid.item(0, MainWindow::ColType)->text(), QString("IN"));
    EXPECT_EQ(grid.item(0, MainWindow::ColNumber)->text(), QString("1"));
    EXPECT_FALSE(grid.item(0, MainWindow::ColPeer)->text().isEmpty());
    EXPECT_EQ(grid.item(0, MainWindow::ColState)->text(), QString("Accueil envoyé, attente HELO"));

    ASSERT_EQ(client.answer("HELO desk\r\n").left(3), QByteArray("250"));
    EXPECT_EQ(grid.item(0, MainWindow::ColState)->text(), QString("Attente MAIL FROM"));
    ASSERT_EQ(client.answer("MAIL FROM:<me@example.org>\r\n").left(3), QByteArray("250"));
    EXPECT_EQ(grid.item(0, MainWindow::ColState)->text(), QString("Attente RCPT TO / DATA"));

    // A second client has its own row.
    Client other(bench.port);
    ASSERT_EQ(other.answer().left(3), QByteArray("220"));
    EXPECT_EQ(grid.rowCount(), 2);

    ASSERT_EQ(client.answer("QUIT\r\n").left(3), QByteArray("221"));
    ASSERT_TRUE(spinUntil([&] { return grid.rowCount() == 1; }));
    EXPECT_EQ(grid.item(0, MainWindow::ColNumber)->text(), QString("2"));
    other.socket.disconnectFromHost();
    EXPECT_TRUE(spinUntil([&] { return grid.rowCount() == 0; }));
}

TEST(DesktopShell, UpdateIconAnnouncesOnClickAndShowsTheWindowOnDoubleClick)
{
    DesktopBench bench;
    bench.start();
    bench.shell->eventIconActivated(QSystemTrayIcon::Trigger);
    bench.shell->eventIconActivated(QSystemTrayIcon::Context);
    ASSERT_EQ(bench.desktop.notices.size(), 2);
    EXPECT_EQ(bench.desktop.notices[0].text,
              QString("Une version plus récente de Postiq est disponible sur http://www.postiq.example/"));
    bench.shell->eventIconActivated(QSystemTrayIcon::MiddleClick);
    EXPECT_EQ(bench.desktop.notices.size(), 2);
    bench.shell->eventIconActivated(QSystemTrayIcon::DoubleClick);
    EXPECT_TRUE(bench.shell->mainWindow().isVisible());
}

TEST(WidgetDesktop, ARepeatedNoticeIsOnScreenOnceAndNeverWaits)
{
    WidgetDesktop desktop;
    const QString text = "RECEIVED DATA NOT IMPLEMENTED ! See debug log ...";
    desktop.notice(QString(), text);
    desktop.notice(QString(), text);
    desktop.notice(QString(), text);
    EXPECT_EQ(desktop.openNotices(), 1);
    desktop.notice(QString(), "something else");
    EXPECT_EQ(desktop.openNotices(), 2);

    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* box = qobject_cast<QMessageBox*>(widget); box && box->text() == text)
            box->close();
    }
    spinUntil([&] { return desktop.openNotices() == 1; }, 1000);
    EXPECT_EQ(desktop.openNotices(), 1);
    desktop.notice(QString(), text); // gone from the screen: it may come again
    EXPECT_EQ(desktop.openNotices(), 2);
}

TEST(DesktopShell, ANewerVersionOpensTheAnnouncementAndShowsTheUpdateIcon)
{
    QTcpServer web;
    ASSERT_TRUE(web.listen(QHostAddress::LocalHost));
    QObject::connect(&web, &QTcpServer::newConnection, [&web] {
        QTcpSocket* client = web.nextPendingConnection();
        QObject::connect(client, &QTcpSocket::readyRead, client, [client] {
            if (client->readAll().endsWith("\r\n\r\n"))
                client->write("HTTP/1.1 200 OK\r\n\r\nBEGIN3.1END");
        });
    });
    DesktopBench bench({}, true, {QStringLiteral("127.0.0.1"), web.serverPort()});
    bench.start();
    ASSERT_TRUE(spinUntil([&] { return bench.shell->announcement() != nullptr; }));
    UpdateAnnouncement& window = *bench.shell->announcement();
    EXPECT_TRUE(window.isVisible());
    EXPECT_FALSE(window.isModal());
    EXPECT_EQ(window.findChild<QLabel*>("lblNewVersion")->text(), QString(" La version 3.1 est disponible !"));
    EXPECT_EQ(bench.shell->newVersion(), QString("3.1"));
    EXPECT_TRUE(bench.shell->eventIcon().isVisible());
}
