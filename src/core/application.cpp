#include "core/application.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QMap>
#include <QTcpSocket>

#include "config/config_file.h"
#include "core/registry_housekeeping.h"
#include "dns/mx_lookup.h"
#include "log/version.h"
#include "log/dates.h"
#include "platform/desktop.h"
#include "platform/instance_lock.h"
#include "platform/registry.h"
#include "platform/program_folder.h"

namespace postiq {

namespace {
const QString kCannotContinue = QStringLiteral("\r\n\r\nL'application ne peut continuer ...");
const char kStartUpSite[] = "FRM:MAIN[Form_Load]";
} // namespace

Application::Application(const QString& programFolder, PlatformServices services)
    : folder_(programFolder),
      services_(services),
      logs_(programFolder, settings_, services.desktop, services.clock),
      configLoader_(settings_, logs_, services.network, services.registry,
                    [this](const QString& name) { language_.LOADFile(logs_, name); }),
      queue_(programFolder)
{
}

Application::~Application() = default;

void Application::setKeyring(std::unique_ptr<Keyring> keyring)
{
    keyring_ = std::move(keyring);
    settings_.keyring = keyring_.get();
}

QString Application::trayToolTipFor(bool started) const
{
    const QString state = started ? language_.text(QStringLiteral("started"), QStringLiteral("Démarré"))
                                  : language_.text(QStringLiteral("stopped"), QStringLiteral("Arrêté"));
    return QStringLiteral("Postiq ") + AppVersion() + QStringLiteral(" [") + state + u']';
}

void Application::refuse(const QString& text)
{
    services_.desktop.messageBox(QStringLiteral("Postiq"), text, Desktop::Icon::Critical);
    services_.desktop.endProgram(ExitRefused);
    Q_UNREACHABLE(); // the compiler does not see through the virtual call
}

void Application::start()
{
    ensureSingleInstance();
    settings_.ConfigLoaded = false; // the debug log runs in safe mode until the file is read
    logs_.guarded(kStartUpSite, [this] {
        titleText_ = QStringLiteral("Postiq - Version ") + AppVersion();
        windowCaption_ = titleText_ + QStringLiteral(" [") + QHostInfo::localHostName() + ']';
    });
    initialiseComponents();
    logs_.guarded(kStartUpSite, [this] {
        if (windowSteps_.connectionsView)
            windowSteps_.connectionsView();
        createQueueFolders();
    });
    checkLogFilesWritable();
    clearQueueLeftovers();
    prepareConfigurationFile();
    logs_.guarded(kStartUpSite, [this] {
        configLoader_.ChargerConfig(true);
        if (windowSteps_.relabelMain)
            windowSteps_.relabelMain();
        maintainInstallationRecord(services_.registry, services_.desktop);
        logs_.DbgAdd("<P><HR><FONT face='Verdana' size='2'>Lancement de Postiq</FONT><BR>");
        tables_ = std::make_unique<ConnectionTables>(logs_, settings_, dnsCache_, this);
        service_ = std::make_unique<SmtpService>(settings_, logs_, dnsCache_, *tables_, queue_, this);
        dispatcher_ = std::make_unique<Dispatcher>(logs_, settings_, *tables_, queue_);
        dispatcher_->setRoutes(&routes_);
        loadRoutes();
        tables_->enableOutboxTimer = [this] { dispatcher_->enableOutboxTimer(); };
        if (networkState_) {
            connect(networkState_.get(), &NetworkState::onlineChanged, dispatcher_.get(), &Dispatcher::setOnline);
            if (!networkState_->online())
                dispatcher_->setOnline(false);
        }
        logs_.setBeforeFatalReport([this] { silenceEverything(); });
        trayToolTip_ = trayToolTipFor(false);
        if (windowSteps_.trayIcon)
            windowSteps_.trayIcon();
    });
    if (settings_.ActiveSettings.LaunchStart)
        service_->Demarrer();
    // The queue timers run whatever the service's state.
    dispatcher_->startTimers();
    if (windowSteps_.versionCheck)
        logs_.guarded(kStartUpSite, [this] { windowSteps_.versionCheck(); });
}

void Application::initialiseComponents()
{
    QString component = QStringLiteral("DNSLookup");
    try {
        checkLookupComponent();
        component = QStringLiteral("Winsock");
        QTcpSocket probe; // the socket layer answers
        if (probe.state() != QAbstractSocket::UnconnectedState)
            throw Fault(ErrNetwork, QStringLiteral("The socket layer is not ready"));
        component = QStringLiteral("Dictionary");
        QMap<QString, QString> dictionary;
        dictionary.insert(QStringLiteral("test"), QStringLiteral("test"));
        if (dictionary.value(QStringLiteral("test")) != QLatin1String("test"))
            throw Fault(ErrInvalidCall, QStringLiteral("The dictionary does not keep its entries"));
    } catch (const Fault& fault) {
        logs_.ReportProgramError(QString::fromLatin1(kStartUpSite), fault.number(),
                                 fault.description() + QStringLiteral("<BR>INIT: ") + component);
    }
}

void Application::ensureSingleInstance()
{
    instanceLock_ = std::make_unique<InstanceLock>(folder_);
    if (!instanceLock_->tryLock())
        refuse(QStringLiteral("Postiq est déjà lancé !"));
}

void Application::checkLookupComponent()
{
    if (DNSLookup::Version() != QLatin1String("3.0"))
        refuse(QStringLiteral("Cette version Postiq nécessite DNSLookup 3.0 !") + kCannotContinue);
    lookupVersionText_ = QStringLiteral("DNSLookup version detected: ") + DNSLookup::Version();
}

void Application::createQueueFolders()
{
    const auto logCreation = [this](const QByteArray& name) {
        logs_.MailLog(GMTDate(services_.clock) + " Postiq: '" + name + "' directory creation");
    };
    for (const QueueFolder folder : queue_.createMissingFolders())
        logCreation(Queue::folderName(folder));
    const QString language = SubfolderPath(folder_, QStringLiteral("language"));
    if (QFileInfo(language).isDir())
        return;
    if (!QDir().mkpath(language))
        throw Fault(ErrAccessDenied, QStringLiteral("Cannot create the folder ") + language);
    logCreation("language");
}

void Application::clearQueueLeftovers()
{
    QueueLeftovers found;
    try {
        found = queue_.clearLeftovers();
    } catch (const Fault& fault) {
        logs_.ErrorLog(GMTDate(services_.clock) + " Postiq: the queue could not be cleared of an earlier run's "
                       "leftovers: " + fault.description().toUtf8());
        return;
    }
    if (found.stagingFiles > 0)
        logs_.ErrorLog(GMTDate(services_.clock) + " Postiq: " + QByteArray::number(found.stagingFiles)
                       + " unfinished queue file(s) of an earlier run removed (never acknowledged)");
    if (found.duplicates > 0)
        logs_.ErrorLog(GMTDate(services_.clock) + " Postiq: " + QByteArray::number(found.duplicates)
                       + " second copy(ies) of a message left by an interrupted move removed");
}

namespace {
// The read-only attribute, not the current user's rights: the owner's write bit decides, so that
// the check means the same for root.
bool isReadOnlyFile(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() && info.isFile() && !(info.permissions() & QFileDevice::WriteOwner);
}
} // namespace

void Application::checkLogFilesWritable()
{
    for (const char* name : {"maillog.txt", "error.txt", "update.txt"}) {
        if (isReadOnlyFile(folder_ + '/' + QLatin1String(name)))
            refuse(QStringLiteral("Fichier de log '%1' en lecture seule !").arg(QLatin1String(name))
                   + kCannotContinue);
    }
}

void Application::prepareConfigurationFile()
{
    const QString path = folder_ + QStringLiteral("/Postiq.ini");
    if (!QFileInfo::exists(path)) {
        logs_.guarded(kStartUpSite, [this] { WriteConf(settings_.DefaultSettings, logs_); });
    } else if (isReadOnlyFile(path)) {
        refuse(QStringLiteral("Fichier de configuration en lecture seule !") + kCannotContinue);
    }
}

void Application::quit()
{
    if (quitting_)
        return;
    quitting_ = true;
    if (service_)
        service_->Arreter();
    emit finished();
}

void Application::silenceEverything()
{
    if (dispatcher_)
        dispatcher_->stopTimers();
    if (tables_)
        tables_->silenceAll();
}

// Twice in a row (the tray, the command line) changes nothing the second time.
void Application::startService()
{
    if (service_ && !service_->isListening())
        service_->Demarrer();
}

void Application::stopService()
{
    if (service_ && service_->isListening())
        service_->Arreter();
}

void Application::reloadConfiguration()
{
    logs_.reopenFiles(); // a log moved away by hand starts afresh at once
    configLoader_.ChargerConfig(true);
    loadRoutes();
}

// The dispatcher reads the table at each new dispatch; a delivery under way keeps its own copy of
// its routes, so a reload drops nothing.
void Application::loadRoutes()
{
    routes_ = RouteTable::load(folder_);
    for (const QString& error : routes_.errors())
        logs_.ErrorLog(GMTDate(logs_.clock()) + " Postiq: " + error.toUtf8());
    if (QFile::exists(QDir(folder_).filePath(QString::fromLatin1(kRoutesFile))))
        logs_.DbgAdd("<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock()) + ": Routes.ini: "
                     + QByteArray::number(routes_.routes().size()) + " route(s)</FONT><BR>");
}

void Application::flushDeferred()
{
    if (dispatcher_)
        dispatcher_->ForceDeferred();
}

bool Application::showQueueWindow()
{
    if (!windowSteps_.showQueue)
        return false;
    windowSteps_.showQueue();
    return true;
}

void Application::showServiceState(bool started)
{
    serviceStarted_ = started;
    trayToolTip_ = trayToolTipFor(started);
    emit serviceStateChanged(started);
}

void Application::updateConnection(const QByteArray& cnxType, int n) { emit connectionChanged(cnxType, n); }

} // namespace postiq
