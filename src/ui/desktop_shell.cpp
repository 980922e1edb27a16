#include "ui/desktop_shell.h"

#include <QIcon>
#include <QMenuBar>
#include <QVBoxLayout>

#include "core/application.h"
#include "core/relay_commands.h"
#include "log/version.h"
#include "platform/desktop.h"
#include "ui/configuration_dialog.h"
#include "ui/relabel.h"
#include "ui/update_announcement.h"

namespace postiq {

namespace {
const QString kStartedIcon = QStringLiteral(":/icons/tray_started.svg");
const QString kStoppedIcon = QStringLiteral(":/icons/tray_stopped.svg");
const QString kEventIcon = QStringLiteral(":/icons/tray_event.svg");
} // namespace

QString DesktopShell::helpAddress() { return QString::fromLatin1(kProductWeb.address); }
QString DesktopShell::downloadAddress() { return QString::fromLatin1(kProductWeb.address) + QStringLiteral("download/"); }

DesktopShell::DesktopShell(Application& application, Desktop& desktop, Options options, QObject* parent)
    : QObject(parent), application_(application), desktop_(desktop), options_(std::move(options)),
      mainWindow_(std::make_unique<MainWindow>(application.language())), menu_(std::make_unique<TrayMenu>(mainWindow_.get())),
      counts_(application.queue())
{
    mainWindow_->setWindowIcon(QIcon(kStoppedIcon));
    trayIcon_.setObjectName(QStringLiteral("img_tray"));
    eventIcon_.setObjectName(QStringLiteral("img_tray_event"));
    trayIcon_.setIcon(QIcon(kStoppedIcon));
    eventIcon_.setIcon(QIcon(kEventIcon));
    // The menu opens on a right click (Qt shows the context menu itself).
    trayIcon_.setContextMenu(menu_->menu);
    connect(&trayIcon_, &QSystemTrayIcon::activated, this, &DesktopShell::trayActivated);
    connect(&eventIcon_, &QSystemTrayIcon::activated, this, &DesktopShell::eventIconActivated);
    wireMenu();

    connect(&application_, &Application::serviceStateChanged, this, &DesktopShell::serviceStateChanged);
    connect(&application_, &Application::connectionChanged, this, &DesktopShell::connectionChanged);
    connect(&counts_, &QueueCounts::changed, this, &DesktopShell::refreshToolTip);
    connect(mainWindow_.get(), &MainWindow::queueRequested, this, &DesktopShell::showQueueWindow);
    connect(mainWindow_.get(), &MainWindow::quitRequested, &application_, &Application::quit);
    // Directly, before the loop ends: the icons leave the notification area with the program.
    connect(&application_, &Application::finished, this, &DesktopShell::closeEverything);

    application_.setWindowSteps({.connectionsView = [this] { setUpWindow(); },
                                 .relabelMain = [this] { relabelMain(); },
                                 .trayIcon = [this] { showTrayIcon(); },
                                 .versionCheck = [this] { startVersionCheck(); },
                                 .showQueue = [this] { showQueueWindow(); }});
}

DesktopShell::~DesktopShell()
{
    delete queueWindow_;
    delete dialog_;
    delete announcement_;
}

void DesktopShell::wireMenu()
{
    TrayMenu& m = *menu_;
    connect(m.mnuopen, &QAction::triggered, this, &DesktopShell::showMainWindow);
    connect(m.mnuqueue, &QAction::triggered, this, &DesktopShell::showQueueWindow);
    connect(m.mnuwintop, &QAction::toggled, mainWindow_.get(), &MainWindow::setAlwaysOnTop);
    connect(m.mnuconfig, &QAction::triggered, this, &DesktopShell::openConfiguration);
    connect(m.mnustart, &QAction::triggered, &application_, &Application::startService);
    connect(m.mnustop, &QAction::triggered, &application_, &Application::stopService);
    connect(m.mnureload, &QAction::triggered, &application_, &Application::reloadConfiguration);
    connect(m.mnuflush, &QAction::triggered, &application_, &Application::flushDeferred);
    connect(m.mnuseelog, &QAction::triggered, this,
            [this] { desktop_.openFile(application_.logs().folder() + QStringLiteral("/maillog.txt")); });
    connect(m.mnuseeerrorlog, &QAction::triggered, this,
            [this] { desktop_.openFile(application_.logs().folder() + QStringLiteral("/error.txt")); });
    connect(m.mnuupdate, &QAction::triggered, this, [this] { desktop_.openAddress(downloadAddress()); });
    connect(m.mnuhelp, &QAction::triggered, this, [this] { desktop_.openAddress(helpAddress()); });
    connect(m.mnuquit, &QAction::triggered, &application_, &Application::quit);
    connect(m.mnusystrayevent, &QAction::triggered, this, [this] {
        desktop_.notice(QStringLiteral("Postiq"),
                        text("newerVersionAt", "Une version plus récente de Postiq est disponible sur %1")
                            .arg(helpAddress()));
    });
}

void DesktopShell::setUpWindow()
{
    mainWindow_->setTitle(application_.windowCaption(), application_.titleText());
    mainWindow_->setLookupVersion(application_.lookupVersionText());
    if (!options_.trayAvailable) {
        // No notification area: the window is the only way in, so it carries the menu.
        auto* bar = new QMenuBar(mainWindow_.get());
        bar->setObjectName(QStringLiteral("mnubar"));
        bar->addMenu(menu_->menu);
        static_cast<QVBoxLayout*>(mainWindow_->layout())->setMenuBar(bar);
    }
}

QString DesktopShell::text(const char* name, const char* french) const
{
    return application_.language().text(QLatin1String(name), QString::fromUtf8(french));
}

void DesktopShell::relabelMain()
{
    LOADValues(application_.logs(), application_.language(), *mainWindow_, QString::fromLatin1(kMainSection));
    mainWindow_->relabelGrid();
    eventIcon_.setToolTip(text("newerVersion", "Une version plus récente de Postiq est disponible"));
    qtTranslation_.follow(application_.settings().ActiveSettings.Language);
}

void DesktopShell::applyWrittenConfiguration()
{
    const int before = application_.settings().ActiveSettings.ListenPort;
    application_.reloadConfiguration();
    const int after = application_.settings().ActiveSettings.ListenPort;
    if (after != before)
        desktop_.notice(QStringLiteral("Postiq"),
                        text("portChanged", "Le port d'écoute passe de %1 à %2: le service SMTP l'ouvre à son "
                                            "prochain démarrage (Arrêter puis Démarrer).")
                            .arg(before)
                            .arg(after));
}

void DesktopShell::showTrayIcon()
{
    // The folders exist from here on: the counts and the notices follow the queue.
    failures_ = std::make_unique<FailureNotices>(
        application_.queue(), application_.logs(),
        [this](const char* name, const QString& french) { return composedText(name, french); });
    connect(failures_.get(), &FailureNotices::notice, this, &DesktopShell::tellFailures);
    counts_.start();
    if (options_.trayAvailable) {
        trayIcon_.show();
    } else {
        mainWindow_->setNoTray([this](const char* name, const QString& french) { return composedText(name, french); });
        mainWindow_->show();
    }
}

QString DesktopShell::composedText(const char* name, const QString& french) const
{
    return application_.language().text(QLatin1String(name), french);
}

void DesktopShell::refreshToolTip()
{
    QString tip = application_.trayToolTip();
    if (counts_.waiting() > 0 || counts_.failed() > 0)
        tip += u' ' + composedText("trayCounts", QStringLiteral("— %1 en attente, %2 en erreur"))
                          .arg(counts_.waiting())
                          .arg(counts_.failed());
    trayIcon_.setToolTip(tip);
}

// Through the notification area's own messages; without one, a box that waits for nobody.
void DesktopShell::tellFailures(const QString& text)
{
    if (options_.trayAvailable)
        trayIcon_.showMessage(QStringLiteral("Postiq"), text, QSystemTrayIcon::Warning, 15000);
    else
        desktop_.notice(QStringLiteral("Postiq"), text);
}

void DesktopShell::showQueueWindow()
{
    if (!queueWindow_) {
        Logs& logs = application_.logs();
        LanguageTable& language = application_.language();
        queueWindow_ = new QueueWindow(
            {.queue = application_.queue(),
             .logs = logs,
             .attemptDelayMinutes = [this] { return int(application_.settings().ActiveSettings.AttemptDelay); },
             .command = [this](const QByteArray& verb, const QByteArray& id) {
                 return CarryOutRelayCommand(application_, verb, id);
             },
             .openFolder = [this](const QString& path) { desktop_.openFile(path); },
             .relabel = [&logs, &language](QWidget& form) {
                 LOADValues(logs, language, form, QStringLiteral("QUEUE"));
             },
             .text = [&language](const char* name, const QString& french) {
                 return language.text(QLatin1String(name), french);
             }});
        queueWindow_->setAttribute(Qt::WA_DeleteOnClose);
        queueWindow_->setServiceIcon(mainWindow_->windowIcon());
    }
    queueWindow_->show();
    queueWindow_->raise();
    queueWindow_->activateWindow();
}

void DesktopShell::startVersionCheck()
{
    versionCheck_ = std::make_unique<VersionCheck>(options_.updateServer, kVersionMajor, kVersionMinor);
    connect(versionCheck_.get(), &VersionCheck::newerVersion, this, &DesktopShell::announceNewVersion);
    versionCheck_->start();
}

void DesktopShell::trayActivated(QSystemTrayIcon::ActivationReason reason)
{
    switch (reason) {
    case QSystemTrayIcon::DoubleClick:
        showMainWindow();
        break;
    case QSystemTrayIcon::Context:
        // Qt pops the context menu up itself; where it cannot, the menu opens here.
        if (!trayIcon_.contextMenu())
            menu_->menu->popup(QCursor::pos());
        break;
    default: // a single left click or the middle button: nothing
        break;
    }
}

void DesktopShell::eventIconActivated(QSystemTrayIcon::ActivationReason reason)
{
    switch (reason) {
    case QSystemTrayIcon::Trigger:
    case QSystemTrayIcon::Context:
        menu_->mnusystrayevent->trigger();
        break;
    case QSystemTrayIcon::DoubleClick:
        showMainWindow();
        break;
    default:
        break;
    }
}

void DesktopShell::showMainWindow()
{
    mainWindow_->show();
    mainWindow_->raise();
    mainWindow_->activateWindow();
}

void DesktopShell::openConfiguration()
{
    if (!dialog_) {
        Logs& logs = application_.logs();
        LanguageTable& language = application_.language();
        dialog_ = new ConfigurationDialog(
            application_.settings(), logs, [this] { applyWrittenConfiguration(); },
            {.relabel = [&logs, &language](QWidget& form) {
                 LOADValues(logs, language, form, QString::fromLatin1(kConfigurationSection));
             },
             .sharedWord = [&language](int number) { return language.sharedWord(number); },
             .text = [&language](const char* name, const QString& french) {
                 return language.text(QLatin1String(name), french);
             }});
        dialog_->setAttribute(Qt::WA_DeleteOnClose);
    }
    dialog_->show();
    dialog_->raise();
    dialog_->activateWindow();
}

void DesktopShell::announceNewVersion(const QString& version)
{
    newVersion_ = version;
    if (options_.trayAvailable)
        eventIcon_.show();
    delete announcement_;
    announcement_ = new UpdateAnnouncement(newVersion_, AppVersion(),
                                           [this] { desktop_.openAddress(downloadAddress()); });
    announcement_->useLanguage(application_.language());
    announcement_->show();
}

void DesktopShell::serviceStateChanged(bool started)
{
    menu_->showServiceState(started);
    const QIcon icon(started ? kStartedIcon : kStoppedIcon);
    trayIcon_.setIcon(icon);
    mainWindow_->setWindowIcon(icon);
    if (queueWindow_)
        queueWindow_->setServiceIcon(icon);
    refreshToolTip();
}

void DesktopShell::connectionChanged(const QByteArray& cnxType, int n)
{
    ConnectionTables& tables = application_.tables();
    const CConnexion& cnx = cnxType == "IN" ? tables.CnxIn(n) : tables.CnxOut(n);
    mainWindow_->showConnection(cnx, cnxType, n);
}

void DesktopShell::closeEverything()
{
    trayIcon_.hide();
    eventIcon_.hide();
    if (dialog_)
        dialog_->close();
    if (announcement_)
        announcement_->close();
    if (queueWindow_)
        queueWindow_->close();
    mainWindow_->allowClose();
    mainWindow_->close();
}

} // namespace postiq
