#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QSystemTrayIcon>
#include <memory>

#include "ui/configuration_dialog.h"
#include "ui/failure_notices.h"
#include "ui/main_window.h"
#include "ui/queue_counts.h"
#include "ui/queue_window.h"
#include "ui/qt_translation.h"
#include "ui/tray_menu.h"
#include "ui/update_announcement.h"
#include "update/version_check.h"

namespace postiq {

class Application;
class Desktop;

// The program's face on a desktop: the main window, the tray icons and their menu, the
// configuration dialog and the version check, wired to the running Application. Nothing here
// waits for the user: every window is shown and the handlers return at once.
class DesktopShell : public QObject {
    Q_OBJECT
public:
    struct Options {
        UpdateServer updateServer;
        // False where the desktop has no notification area: the main window then shows at
        // start-up and carries the menu.
        bool trayAvailable = true;
    };

    // Hands the application its window steps; call before Application::start().
    DesktopShell(Application& application, Desktop& desktop, Options options, QObject* parent = nullptr);
    ~DesktopShell() override;

    MainWindow& mainWindow() { return *mainWindow_; }
    TrayMenu& menu() { return *menu_; }
    QSystemTrayIcon& trayIcon() { return trayIcon_; }      // img_tray
    QSystemTrayIcon& eventIcon() { return eventIcon_; }    // img_tray_event
    ConfigurationDialog* configurationDialog() const { return dialog_; }
    UpdateAnnouncement* announcement() const { return announcement_; }
    QueueWindow* queueWindow() const { return queueWindow_; }
    QueueCounts& queueCounts() { return counts_; }
    FailureNotices* failureNotices() const { return failures_.get(); }
    const QString& newVersion() const { return newVersion_; }

    // The mouse rules of the two icons.
    void trayActivated(QSystemTrayIcon::ActivationReason reason);
    void eventIconActivated(QSystemTrayIcon::ActivationReason reason);

    // Opens the configuration dialog, or brings the open one forward.
    void openConfiguration();
    void showMainWindow();
    // Opens the queue window, or brings the open one forward.
    void showQueueWindow();
    // A newer version is published: the update icon appears and the announcement opens.
    void announceNewVersion(const QString& version);

    // Addresses the menu opens.
    static QString helpAddress();
    static QString downloadAddress();

private:
    void setUpWindow();
    void relabelMain();
    // What the dialog's "Ecrire" does once the file is written: Recharger, and a word when the
    // listening port changed, since the running service keeps its port until it starts again.
    void applyWrittenConfiguration();
    // A text the shell composes, in the chosen language.
    QString text(const char* name, const char* french) const;
    void showTrayIcon();
    void startVersionCheck();
    void wireMenu();
    void serviceStateChanged(bool started);
    void connectionChanged(const QByteArray& cnxType, int n);
    void closeEverything();
    void refreshToolTip();
    void tellFailures(const QString& text);
    // A text the shell composes, in the chosen language.
    QString composedText(const char* name, const QString& french) const;

    Application& application_;
    Desktop& desktop_;
    Options options_;
    std::unique_ptr<MainWindow> mainWindow_;
    std::unique_ptr<TrayMenu> menu_;
    QSystemTrayIcon trayIcon_;
    QSystemTrayIcon eventIcon_;
    QPointer<ConfigurationDialog> dialog_;
    QPointer<UpdateAnnouncement> announcement_;
    QPointer<QueueWindow> queueWindow_;
    QueueCounts counts_;
    std::unique_ptr<FailureNotices> failures_;
    std::unique_ptr<VersionCheck> versionCheck_;
    QString newVersion_;
    QtTranslation qtTranslation_;
};

} // namespace postiq
