#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <memory>

#include "config/config_file.h"
#include "config/settings.h"
#include "delivery/dispatcher.h"
#include "delivery/route_table.h"
#include "dns/dns_cache.h"
#include "language/language.h"
#include "log/logs.h"
#include "platform/keyring.h"
#include "platform/network_state.h"
#include "smtp_in/connexion.h"
#include "smtp_in/smtp_service.h"
#include "store/queue.h"

namespace postiq {

class Clock;
class Desktop;
class InstanceLock;
class NetworkDiscovery;
class Registry;

// The operating-system services the program runs on; tests hand in fakes.
struct PlatformServices {
    Desktop& desktop;
    Registry& registry;
    NetworkDiscovery& network;
    const Clock& clock;
};

// What the windows add to the start-up sequence, each at its place in it; headless there is none.
struct WindowSteps {
    std::function<void()> connectionsView; // the grid, once the title is known
    std::function<void()> relabelMain;     // the main window in the loaded language
    std::function<void()> trayIcon;        // the icon with its "stopped" tool-tip
    std::function<void()> versionCheck;    // the last step
    std::function<void()> showQueue;       // not a step: opens the queue window when asked
};

// The running program: it owns every program-wide piece of state (settings, logs, language table,
// MX cache, connection slots, SMTP service) for one program folder, runs the start-up sequence and
// the shutdown path, and keeps the state that the tray and the main window show.
class Application : public QObject, public ServiceView, public ConnectionsView {
    Q_OBJECT
public:
    Application(const QString& programFolder, PlatformServices services);
    ~Application() override;

    // Before start(): the windows' steps of the start-up sequence.
    void setWindowSteps(WindowSteps steps) { windowSteps_ = std::move(steps); }
    // Before start(): the desktop keyring, where there is one, for the outgoing server's password.
    void setKeyring(std::unique_ptr<Keyring> keyring);
    // Before start(): what tells whether the computer has a network; none: it always has.
    void setNetworkState(std::unique_ptr<NetworkState> state) { networkState_ = std::move(state); }

    // The start-up sequence. A refusal (already running, read-only files, wrong resolver) tells
    // the user and ends the program with status 2; an unexpected fault is the fatal report.
    void start();
    // The quit path: stop the service, then let the event loop end (finished()).
    void quit();

    // The commands of the tray menu, also taken from the control channel of a running relay.
    void startService();        // "Démarrer"
    void stopService();         // "Arrêter"
    void reloadConfiguration(); // "Recharger": the file read again, overrides applied
    void flushDeferred();       // "Forcer (deferred)": every deferred file back, then a dispatch
    // Opens the queue window; false when the program runs without windows.
    bool showQueueWindow();

    Settings& settings() { return settings_; }
    Logs& logs() { return logs_; }
    LanguageTable& language() { return language_; }
    DnsCache& dnsCache() { return dnsCache_; }
    ConnectionTables& tables() { return *tables_; }
    SmtpService& service() { return *service_; }
    Dispatcher& dispatcher() { return *dispatcher_; }
    Queue& queue() { return queue_; }
    ConfigLoader& configLoader() { return configLoader_; }
    // The routes by sender of Routes.ini, as last loaded (at start and at each reload).
    const RouteTable& routes() const { return routes_; }

    // What the main window and the tray show.
    const QString& windowCaption() const { return windowCaption_; }
    const QString& titleText() const { return titleText_; }
    const QString& lookupVersionText() const { return lookupVersionText_; }
    const QString& trayToolTip() const { return trayToolTip_; }
    bool serviceStarted() const { return serviceStarted_; }

    void showServiceState(bool started) override;
    void updateConnection(const QByteArray& cnxType, int n) override;

signals:
    void finished();
    void serviceStateChanged(bool started);
    void connectionChanged(const QByteArray& cnxType, int n);

private:
    [[noreturn]] void refuse(const QString& text);
    // "Postiq 3.0 [Démarré]", the state in the chosen language.
    QString trayToolTipFor(bool started) const;
    void ensureSingleInstance();
    // The resolver, the socket layer and the dictionary: a component that fails to come up is the
    // fatal report, naming it.
    void initialiseComponents();
    void checkLookupComponent();
    void createQueueFolders();
    // What a relay that was killed left in the queue: unfinished files, a message in two folders.
    void clearQueueLeftovers();
    void checkLogFilesWritable();
    void prepareConfigurationFile();
    // Reads Routes.ini again; each fault of the file is a line of the error log.
    void loadRoutes();
    // Before the fatal report's box: nothing of the relay may run while it waits for the user.
    void silenceEverything();

    QString folder_;
    PlatformServices services_;
    Settings settings_;
    Logs logs_;
    LanguageTable language_;
    DnsCache dnsCache_;
    ConfigLoader configLoader_;
    RouteTable routes_;
    Queue queue_;
    std::unique_ptr<InstanceLock> instanceLock_;
    std::unique_ptr<ConnectionTables> tables_;
    std::unique_ptr<SmtpService> service_;
    std::unique_ptr<Dispatcher> dispatcher_;
    std::unique_ptr<Keyring> keyring_;
    std::unique_ptr<NetworkState> networkState_;

    QString windowCaption_;
    QString titleText_;
    QString lookupVersionText_;
    QString trayToolTip_;
    bool serviceStarted_ = false;
    bool quitting_ = false;
    WindowSteps windowSteps_;
};

// The program's entry point: options, platform services, start-up, event loop.
int runPostiq(int argc, char** argv);

} // namespace postiq
