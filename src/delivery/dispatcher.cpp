#include "delivery/dispatcher.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSslSocket>
#include <algorithm>
#include <limits>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/server_route.h"
#include "log/dates.h"
#include "log/logs.h"
#include "platform/clock.h"
#include "smtp_in/connexion.h"
#include "store/address.h"

namespace postiq {

namespace {
constexpr int kLastUsableOutSlot = ConnectionTables::kUpperBound - 1; // 100 is never handed out
// Files whose heads a connection reads, at most, when it looks into the queue for its next message.
constexpr int kLookAhead = 20;
const QByteArray kNoHost = "NONE";

QByteArray number(int n) { return QByteArray::number(n); }
} // namespace

Dispatcher::Dispatcher(Logs& logs, Settings& settings, ConnectionTables& tables, Queue& queue, QObject* parent)
    : QObject(parent), logs_(logs), settings_(settings), tables_(tables), queue_(queue),
      disposition_(logs, settings, queue), addresses_(logs, settings, tables.CnxOut(1).DNS.lookups())
{
    // Whatever reaches OutBox through the queue (a notice, a message sent back on request, a
    // file found by a rescan) leaves at once.
    queueObserver_ = queue_.addObserver([this](QueueFolder folder, const QByteArray&, QueueChange change) {
        if (folder == QueueFolder::OutBox && change == QueueChange::Added)
            dispatchSoon(false);
    });
    tmrVerifOutBox.setInterval(kTimerInterval);
    tmrVerifDeferred.setInterval(kTimerInterval);
    connect(&tmrVerifOutBox, &QTimer::timeout, this, &Dispatcher::outboxTick);
    connect(&tmrVerifDeferred, &QTimer::timeout, this, &Dispatcher::VerifDeferred);
    tmrDeferredDue.setSingleShot(true);
    tmrDeferredDue.setTimerType(Qt::PreciseTimer);
    connect(&tmrDeferredDue, &QTimer::timeout, this, &Dispatcher::VerifDeferred);
}

Dispatcher::~Dispatcher() { queue_.removeObserver(queueObserver_); }

void Dispatcher::startTimers()
{
    tmrVerifOutBox.start();
    tmrVerifDeferred.start();
}

void Dispatcher::stopTimers()
{
    tmrVerifOutBox.stop();
    tmrVerifDeferred.stop();
    tmrDeferredDue.stop();
}

void Dispatcher::enableOutboxTimer()
{
    if (!tmrVerifOutBox.isActive())
        tmrVerifOutBox.start();
}

void Dispatcher::queueChanged() { dispatchSoon(true); }

void Dispatcher::dispatchSoon(bool rescan)
{
    rescanPosted_ = rescanPosted_ || rescan;
    if (dispatchPosted_)
        return;
    dispatchPosted_ = true;
    QMetaObject::invokeMethod(this, [this] {
        dispatchPosted_ = false;
        if (std::exchange(rescanPosted_, false))
            Trapped(logs_, "D:MODULE[VerifOutBox]", [&] { queue_.rescanOutBox(); });
        VerifOutBox();
    }, Qt::QueuedConnection);
}

void Dispatcher::postVerifOutBox()
{
    QMetaObject::invokeMethod(this, &Dispatcher::VerifOutBox, Qt::QueuedConnection);
}

void Dispatcher::postAfterSession()
{
    QMetaObject::invokeMethod(this, [this] {
        VerifOutBox();
        enableOutboxTimer();
        VerifOutBox();
    }, Qt::QueuedConnection);
}

// With KeepLocal on the timer keeps running, so that delivery resumes on the first tick after
// the setting is switched off. The tick is also when OutBox is listed again for files that
// another process dropped there without telling this one (a sendmail run by another user writes
// into the drop box directly): a rescan every 10 s rather than a file-system watcher, which would
// wake the relay for each of its own writes too.
void Dispatcher::outboxTick()
{
    unreadable_.clear();
    walkedTo_ = 0;
    Trapped(logs_, "D:MODULE[VerifOutBox]", [&] { queue_.rescanOutBox(); });
    if (settings_.ActiveSettings.KeepLocal)
        return;
    tmrVerifOutBox.stop();
    VerifOutBox();
}

void Dispatcher::VerifOutBox()
{
    Trapped(logs_, "D:MODULE[VerifOutBox]", [&] {
        if (settings_.ActiveSettings.KeepLocal || !online_)
            return;
        if (!freeCnxOut()) {
            // Every slot is busy: the queue waits for the next release or tick.
            enableOutboxTimer();
            return;
        }
        // The oldest file that no busy slot delivers: a call costs the files it skips, no more.
        const QSet<QByteArray> claimed = claimedFiles();
        rewindIfReleased(claimed);
        QSet<QByteArray> busy = busyExchangers();
        // Passed over: being delivered, unreadable, or waiting in the backlog, which hands its
        // messages out itself (backlogNext).
        const auto skip = [&](const QByteArray& name) {
            return claimed.contains(name) || unreadable_.contains(name) || backlog_.exchangerOf(name);
        };
        bool rescanned = false;
        for (;;) {
            std::optional<QByteArray> name = backlogNext(busy);
            if (!name)
                name = queue_.nextInOutBox(walkedTo_, skip);
            if (!name && !rescanned && !queue_.next(QueueFolder::OutBox)) {
                // Nothing known waits: OutBox is empty then, and a listing of it catches what was
                // written past the queue (a test's or an older program's own files).
                queue_.rescanOutBox();
                rescanned = true;
                name = queue_.nextInOutBox(walkedTo_, skip);
            }
            if (!name) {
                enableOutboxTimer();
                return;
            }
            const QString file = QFile::decodeName(*name);
            logs_.DbgAdd("<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock()) + ": OUT demande d'envoi demandée ("
                         + file.toUtf8() + ")</FONT><BR>");
            claimedBefore_.insert(*name);
            SendOutSmtp(file);
            busy = busyExchangers();
            if (!waitsForConnection(*name, busy))
                return;
            // It joined the others waiting for their exchanger's connection: the next file may go.
        }
    });
}

// The oldest message waiting in the backlog for an exchanger that has room again.
std::optional<QByteArray> Dispatcher::backlogNext(const QSet<QByteArray>& busy)
{
    for (const QByteArray& exchanger : backlog_.exchangers()) {
        if (busy.contains(exchanger))
            continue;
        if (std::optional<QByteArray> name = backlog_.take(exchanger))
            return name;
    }
    return std::nullopt;
}

// The walk through OutBox goes on where it stopped, past files that were taken then; a file that
// a slot let go while it is still in OutBox (a failed move, a fault) sends the walk back to the
// start, so that it is met again.
void Dispatcher::rewindIfReleased(const QSet<QByteArray>& claimed)
{
    for (const QByteArray& name : std::as_const(claimedBefore_)) {
        if (!claimed.contains(name) && queue_.inOutBox(name)) {
            walkedTo_ = 0;
            break;
        }
    }
    claimedBefore_ = claimed;
}

// Only a busy slot claims its file: a released slot keeps the name readable, but the file (a
// bounce written under the same name, a deferred file back) is free to go again.
QSet<QByteArray> Dispatcher::claimedFiles() const
{
    QSet<QByteArray> files;
    for (int i = 0; i <= kLastUsableOutSlot; ++i) {
        CConnexion& cnx = tables_.CnxOut(i);
        if (cnx.Status() != 0)
            files.insert(QFile::encodeName(cnx.CurrentOutFile));
    }
    return files;
}

// The search starts at the slot taken last and wraps from 99 to 1; one round at the most.
std::optional<uint8_t> Dispatcher::freeCnxOut() const
{
    int i = tables_.LastCnxOut;
    if (i < 1 || i > kLastUsableOutSlot)
        i = 1;
    for (int looked = 0; looked < kLastUsableOutSlot; ++looked) {
        if (tables_.CnxOut(i).Status() == 0)
            return uint8_t(i);
        i = i >= kLastUsableOutSlot ? 1 : i + 1;
    }
    return std::nullopt;
}

void Dispatcher::SendOutSmtp(const QString& file)
{
    Trapped(logs_, "D:MODULE[SendOutSmtp]", [&] {
        const QByteArray stamp = "<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock());
        logs_.DbgAdd(stamp + ": Recherche d'une connexion OUT libre</FONT><BR>");
        const std::optional<uint8_t> free = freeCnxOut();
        if (!free)
            return; // the file stays where it is; a release re-enables the timer
        // The head first: a message whose exchanger has all its connections busy waits for one
        // of them instead of taking a slot.
        CMessage head(logs_);
        const std::optional<QByteArray> found = loadHeadOrSetAside(head, file);
        if (!found) {
            postVerifOutBox();
            return;
        }
        const QByteArray name = QFile::encodeName(file);
        const QByteArray exchanger = exchangerFor(head, *found);
        if (busyExchangers().contains(exchanger)) {
            backlog_.wait(name, exchanger);
            return;
        }
        backlog_.forget(name);
        const uint8_t i = *free;
        tables_.LastCnxOut = i;
        logs_.DbgAdd(stamp + ": Connexion OUT trouvée: " + number(i) + "</FONT><BR>");

        CConnexion& cnx = tables_.CnxOut(i);
        cnx.Connexion = i;
        cnx.CnxType = "OUT";
        cnx.setStatus(Taken);
        cnx.CurrentOutFile = file;
        cnx.CurrentRcptTo = 0;
        cnx.Message = head;
        // The slot is busy from here on, so it owns its socket from here on (a release needs it).
        tables_.LoadSmtpDistant(i);
        SlotDelivery& slot = slots_[i];
        slot.generation += 1;
        slot.triedInClear = false;
        slot.exchanger = exchanger;
        slot.routes.clear();
        if (const SenderRoute* route = routeFor(head)) {
            for (const SenderRoute* link : routes_->chain(*route))
                slot.routes.append(*link); // a copy: a reload does not change a delivery under way
        }
        slot.session.clear();
        slot.arrival = QFileInfo(queue_.filePath(QueueFolder::OutBox, name)).lastModified();
        ReleasingOnFault(tables_, i, [&] {
            cnx.Message.Essai = uint8_t(cnx.Message.Essai + 1);
            const QByteArray domain = *found;
            if (!slots_[i].routes.isEmpty()) {
                useRoutes(i);
                routeResolved(i, file, domain);
                return;
            }
            cnx.DNS.ResolveMx(domain, [this, i, file, domain] {
                Trapped(logs_, "D:MODULE[SendOutSmtp]",
                        [&] { ReleasingOnFault(tables_, i, [&] { routeResolved(i, file, domain); }); });
            });
        });
    });
}

// A queue file that cannot be read (cut short, garbage) would stop the queue at every scan: it is
// set aside in Error as it is, with a line in the error log, and the queue goes on. So is one
// whose first recipient has no domain (written by hand): no route could ever be found for it.
// Only the head is read: the session reads the text from the file as it sends it.
std::optional<QByteArray> Dispatcher::loadHeadOrSetAside(CMessage& message, const QString& file)
{
    const QByteArray name = QFile::encodeName(file);
    try {
        queue_.readHead(QueueFolder::OutBox, name, message);
        // The whole message goes the way of its first recipient's domain.
        return DomainOf(message.RcptTo(1));
    } catch (const Fault& fault) {
        if (fault.number() != ErrFileNotFound) // else taken meanwhile (a command, another process)
            setAside(file, fault);
        return std::nullopt;
    }
}

// An OutBox file that cannot be read goes to Error as it is; one that cannot move either stays
// where it is, passed over until the next tick. Either way the queue goes on.
void Dispatcher::setAside(const QString& file, const Fault& fault)
{
    const QByteArray name = QFile::encodeName(file);
    const QByteArray why = GMTDate(logs_.clock()) + " D:MODULE[SendOutSmtp] error " + number(fault.number()) + ": "
        + fault.description().toUtf8();
    try {
        queue_.moveToError(QueueFolder::OutBox, name);
    } catch (const Fault& moveFault) {
        unreadable_.insert(name);
        logs_.ErrorLog(why + " => left in OutBox: " + moveFault.description().toUtf8());
        return;
    }
    logs_.ErrorLog(why + " => placed in the error directory");
}

void Dispatcher::routeResolved(uint8_t i, const QString& file, const QByteArray& domain)
{
    CConnexion& cnx = tables_.CnxOut(i);
    if (cnx.Status() != Taken || cnx.CurrentOutFile != file)
        return; // the slot went another way while the DNS server was asked
    // A list without hosts (an answer whose records could not be read) is no route either.
    if (cnx.DNS.MX.Host(0) == kNoHost || cnx.DNS.MX.Count() < 1) {
        noRoute(i, file, domain);
        return;
    }
    cnx.CnxType = "OUT";
    cnx.DNS.CurrentMX = 1;
    logs_.DbgAdd("<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock()) + ": Chargement connexion OUT["
                 + number(i) + "]</FONT><BR>");
    startSession(i, false);
}

const SenderRoute* Dispatcher::routeFor(const CMessage& head) const
{
    return routes_ ? routes_->forMessage(head.From, head.RcptTo(1)) : nullptr;
}

// A route's servers take the place of the mail exchangers: no DNS, no cache, one host per route.
void Dispatcher::useRoutes(uint8_t i)
{
    CConnexion& cnx = tables_.CnxOut(i);
    const QList<SenderRoute>& routes = slots_[i].routes;
    QByteArray chain;
    for (const SenderRoute& route : routes) {
        cnx.DNS.MX.Add(0, route.server, QByteArray(), 0);
        chain += (chain.isEmpty() ? "" : ", then ") + route.name.toUtf8() + " (" + route.route.hostAndPort() + ')';
    }
    logs_.DbgAdd("<FONT COLOR='#FF8000'>" + cnx.Message.ID + ": send using route " + chain + "</FONT><BR>");
}

const SenderRoute* Dispatcher::currentRoute(uint8_t i) const
{
    const QList<SenderRoute>& routes = slots_[i].routes;
    const int at = tables_.CnxOut(i).DNS.CurrentMX - 1;
    return at >= 0 && at < routes.size() ? &routes[at] : nullptr;
}

void Dispatcher::noRoute(uint8_t i, const QString&, const QByteArray& domain)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::NoRoute;
    outcome.description =
        "421 No MX DNS available for " + domain + " using NS " + settings_.ActiveSettings.DNSServer.toUtf8();
    dispose(i, outcome);
}

void Dispatcher::startSession(uint8_t i, bool clearOnly)
{
    CConnexion& cnx = tables_.CnxOut(i);
    auto* socket = qobject_cast<QSslSocket*>(tables_.SmtpDistant(i));
    if (!socket)
        throw Fault(ErrInvalidCall, QStringLiteral("SmtpDistant(%1): socket instance not loaded").arg(i));
    socket->abort();
    const QByteArray configured = cnx.DNS.MX.Host(cnx.DNS.CurrentMX);
    SessionTarget target;
    target.route = ParseServerRoute(configured);
    // A submission server is named by host and port: the login stays out of the logs.
    target.shownHost = target.route.submission() ? target.route.hostAndPort() : configured;
    // A route's server is a fixed server with its own login, as SmtpServer is.
    const SenderRoute* route = currentRoute(i);
    target.exchanger = !route && !settings_.UserSettings.SmtpServerDefined;
    target.routeName = route ? route->name : QString();
    target.clearOnly = clearOnly;
    target.knownAddresses = cnx.DNS.MX.record(cnx.DNS.CurrentMX).Addresses;
    const quint64 generation = slots_[i].generation;
    auto* session = new OutboundSession(
        logs_, settings_, addresses_, queue_, i, cnx, *socket, target, timeouts, [this] { VerifOutBox(); },
        [this, i, generation](const DeliveryOutcome& outcome) { sessionEnded(i, generation, outcome); });
    slots_[i].session = session;
    session->start();
}

void Dispatcher::sessionEnded(uint8_t i, quint64 generation, const DeliveryOutcome& outcome)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Error]", [&] {
        if (slots_[i].generation != generation || tables_.CnxOut(i).Status() == 0)
            return; // the slot went another way meanwhile
        ReleasingOnFault(tables_, i, [&] { dispose(i, outcome); });
    });
}

void Dispatcher::dispose(uint8_t i, const DeliveryOutcome& outcome)
{
    CConnexion& cnx = tables_.CnxOut(i);
    SlotDelivery& slot = slots_[i];
    if (outcome.kind == DeliveryOutcome::NotAttempted) {
        restartOnNewConnection(i);
        return;
    }
    if (outcome.kind == DeliveryOutcome::Unreadable) {
        setAside(cnx.CurrentOutFile, Fault(outcome.errorNumber, QString::fromUtf8(outcome.description)));
        if (!takeNextOnConnection(i)) {
            tables_.ReleaseSmtpDistant(i);
            postVerifOutBox();
        }
        return;
    }
    DispositionInput input;
    input.slot = i;
    input.file = cnx.CurrentOutFile;
    input.message = &cnx.Message;
    input.arrival = slot.arrival;
    input.outcome = outcome;
    // A route has one server; the hosts after it are its fallbacks, which the table tries apart.
    const SenderRoute* route = currentRoute(i);
    input.route = route ? route->name : QString();
    input.fallbackRoute = route ? slot.routes.value(cnx.DNS.CurrentMX).name : QString();
    input.moreHosts = !route && outcome.kind != DeliveryOutcome::NoRoute && cnx.DNS.CurrentMX < cnx.DNS.MX.Count();
    input.clearRetryLeft = !slot.triedInClear;
    const NextStep next = disposition_.decide(input);
    if (next != NextStep::Release)
        cnx.Message.Data = QByteArray(); // the text stays in the file while the next host is tried
    switch (next) {
    case NextStep::NextHost:
        cnx.DNS.CurrentMX += 1;
        slot.triedInClear = false;
        startSession(i, false);
        return;
    case NextStep::SameHostInClear:
        slot.triedInClear = true;
        startSession(i, true);
        return;
    case NextStep::Release:
        break;
    }
    noteReachability(slot.exchanger, outcome);
    if (!takeNextOnConnection(i))
        tables_.ReleaseSmtpDistant(i);
    // A deferred message goes again as soon as its delay has run out.
    Trapped(logs_, "D:MODULE[VerifDeferred]", [&] { wakeForEarliestDeferred(); });
    if (outcome.kind == DeliveryOutcome::Transaction)
        postAfterSession();
    else
        postVerifOutBox();
    enableOutboxTimer();
}

// ---- one connection, several messages ----

QByteArray Dispatcher::exchangerFor(const CMessage& head, const QByteArray& domain) const
{
    if (const SenderRoute* route = routeFor(head))
        return "route " + route->name.toLower().toUtf8();
    if (settings_.UserSettings.SmtpServerDefined)
        return "server " + settings_.ActiveSettings.SmtpServer.toUtf8();
    return domain.toLower();
}

// The session's ending moves the exchanger's window: a transaction widens it, a server that
// answered and then failed narrows it, and an exchanger none of whose hosts answered is no longer
// shared (every waiting message tries it at once, as before connections were shared: one after
// another, a dead exchanger's messages would each wait out their connection time-out in turn).
void Dispatcher::noteReachability(const QByteArray& exchanger, const DeliveryOutcome& outcome)
{
    using Ending = ExchangerConcurrency::Ending;
    switch (outcome.kind) {
    case DeliveryOutcome::Transaction:
        concurrency.note(exchanger, Ending::Carried);
        break;
    case DeliveryOutcome::HostPermanent:
    case DeliveryOutcome::LoginRefused:
        concurrency.note(exchanger, Ending::Answered);
        break;
    case DeliveryOutcome::HostTemporary:
    case DeliveryOutcome::NoRoute:
        concurrency.note(exchanger, outcome.answered() ? Ending::Faltered : Ending::Silent);
        break;
    case DeliveryOutcome::NotAttempted:
    case DeliveryOutcome::Unreadable:
        break;
    }
}

int Dispatcher::connectionsTo(const QByteArray& exchanger) const
{
    int open = 0;
    for (int i = 1; i <= kLastUsableOutSlot; ++i)
        open += tables_.CnxOut(i).Status() != 0 && slots_[i].exchanger == exchanger;
    return open;
}

QSet<QByteArray> Dispatcher::busyExchangers() const
{
    QHash<QByteArray, int> connections;
    for (int i = 1; i <= kLastUsableOutSlot; ++i) {
        if (tables_.CnxOut(i).Status() != 0)
            ++connections[slots_[i].exchanger];
    }
    QSet<QByteArray> busy;
    for (auto open = connections.cbegin(); open != connections.cend(); ++open) {
        if (concurrency.full(open.key(), open.value()))
            busy.insert(open.key());
    }
    return busy;
}

bool Dispatcher::waitsForConnection(const QByteArray& name, const QSet<QByteArray>& busy) const
{
    const std::optional<QByteArray> exchanger = backlog_.exchangerOf(name);
    return exchanger && busy.contains(*exchanger);
}

// One place that finds a connection's next message, so that an index of the queue can answer it
// later. The look into the queue is bounded: the files it meets for other exchangers are noted
// in the backlog, so that no later look reads them again.
std::optional<QByteArray> Dispatcher::nextForConnection(uint8_t i)
{
    const QByteArray& exchanger = slots_[i].exchanger;
    const QSet<QByteArray> claimed = claimedFiles();
    // A file gone meanwhile is met when its head is read.
    while (const std::optional<QByteArray> name = backlog_.take(exchanger)) {
        if (!claimed.contains(*name) && queue_.inOutBox(*name))
            return name;
    }
    // The look goes on from where the dispatcher's walk stopped, and stops before any file it
    // leaves unmet, so that the walk never passes one.
    int looked = 0;
    bool found = false;
    const std::optional<QByteArray> name = queue_.nextInOutBox(walkedTo_, [&](const QByteArray& candidate) {
        if (claimed.contains(candidate) || unreadable_.contains(candidate) || backlog_.exchangerOf(candidate))
            return true;
        if (++looked > kLookAhead)
            return false; // enough: the dispatcher meets the rest
        CMessage head(logs_);
        QByteArray its;
        try {
            queue_.readHead(QueueFolder::OutBox, candidate, head);
            its = exchangerFor(head, DomainOf(head.RcptTo(1)));
        } catch (const Fault&) {
            return false; // the dispatcher sets it aside when it comes to it
        }
        if (its == exchanger) {
            found = true;
            return false;
        }
        backlog_.wait(candidate, its);
        return true;
    });
    return found ? name : std::nullopt;
}

bool Dispatcher::takeNextOnConnection(uint8_t i)
{
    SlotDelivery& slot = slots_[i];
    if (!slot.session)
        return false;
    // A window that narrowed meanwhile closes the connections beyond it as they finish.
    if (!slot.session->canTakeAnother() || settings_.ActiveSettings.KeepLocal
        || (concurrency.shared(slot.exchanger) && connectionsTo(slot.exchanger) > concurrency.window(slot.exchanger))) {
        slot.session->quit();
        return false;
    }
    CConnexion& cnx = tables_.CnxOut(i);
    while (const std::optional<QByteArray> name = nextForConnection(i)) {
        claimedBefore_.insert(*name);
        const QString file = QFile::decodeName(*name);
        CMessage head(logs_);
        if (!loadHeadOrSetAside(head, file))
            continue;
        cnx.CurrentOutFile = file;
        cnx.CurrentRcptTo = 0;
        cnx.Message = head;
        cnx.Message.Essai = uint8_t(cnx.Message.Essai + 1);
        slot.generation += 1;
        slot.arrival = QFileInfo(queue_.filePath(QueueFolder::OutBox, QFile::encodeName(file))).lastModified();
        const quint64 generation = slot.generation;
        slot.session->takeNext(
            [this, i, generation](const DeliveryOutcome& outcome) { sessionEnded(i, generation, outcome); });
        return true;
    }
    slot.session->quit();
    return false;
}

void Dispatcher::restartOnNewConnection(uint8_t i)
{
    tables_.CnxOut(i).DNS.CurrentMX = 1;
    slots_[i].triedInClear = false;
    startSession(i, false);
}

void Dispatcher::VerifDeferred()
{
    Trapped(logs_, "D:MODULE[VerifDeferred]", [&] { moveDeferredBack(true, "D:MODULE[VerifDeferred]"); });
}

void Dispatcher::Flush()
{
    Trapped(logs_, "D:MODULE[Flush]", [&] { moveDeferredBack(false, "D:MODULE[Flush]"); });
}

void Dispatcher::ForceDeferred()
{
    Flush();
    VerifOutBox();
}

void Dispatcher::setOnline(bool online)
{
    online_ = online;
    if (online) {
        enableOutboxTimer();
        queueChanged();
    }
}

int Dispatcher::deferredDelaySeconds() const
{
    // Minutes to seconds in 16-bit arithmetic, as the setting is: above 546 it overflows.
    const int delay = settings_.ActiveSettings.AttemptDelay * 60;
    if (delay > std::numeric_limits<int16_t>::max() || delay < std::numeric_limits<int16_t>::min())
        throw Fault(ErrOverflow, QStringLiteral("Overflow"));
    return delay;
}

// The due files are the first ones of the queue's deferral order, so only those are looked at.
// A file that cannot go back stays in Deferred with an error-log line; the others go on.
void Dispatcher::moveDeferredBack(bool onlyDue, const char* site)
{
    const QDateTime now = logs_.clock().now();
    std::optional<qint64> olderThan;
    if (onlyDue)
        olderThan = deferredDelaySeconds();
    QStringList errors;
    queue_.returnDeferred(olderThan, now, &errors);
    for (const QString& error : std::as_const(errors))
        logs_.ErrorLog(GMTDate(logs_.clock()) + ' ' + site + " error " + number(ErrAccessDenied) + ": "
                       + error.toUtf8());
    tmrDeferredDue.stop();
    wakeForEarliestDeferred();
}

void Dispatcher::wakeForEarliestDeferred()
{
    const std::optional<QDateTime> earliest = queue_.earliestDeferral();
    if (!earliest)
        return;
    if (earliest->secsTo(logs_.clock().now()) > deferredDelaySeconds())
        return; // due already, yet still there: the next scan tries it again
    wakeWhenDue(*earliest);
}

// A file is due once its age exceeds the delay by a whole second.
void Dispatcher::wakeWhenDue(const QDateTime& deferredAt)
{
    const QDateTime due = deferredAt.addSecs(deferredDelaySeconds() + 1);
    const qint64 wait = std::clamp<qint64>(logs_.clock().now().msecsTo(due), 0, std::numeric_limits<int>::max());
    if (tmrDeferredDue.isActive() && tmrDeferredDue.remainingTime() <= wait)
        return;
    tmrDeferredDue.start(int(wait));
}

} // namespace postiq
