#include "delivery/dispatcher.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSslSocket>
#include <algorithm>
#include <limits>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/server_route.h"
#include "log/dates.h"
#include "log/logs.h"
#include "platform/clock.h"
#include "platform/folder_scan.h"
#include "platform/program_folder.h"
#include "smtp_in/connexion.h"
#include "store/address.h"

namespace postiq {

namespace {
constexpr int kLastUsableOutSlot = ConnectionTables::kUpperBound - 1; // 100 is never handed out
const QByteArray kNoHost = "NONE";

QByteArray number(int n) { return QByteArray::number(n); }

// The files of a queue folder, one at a time in the order the directory gives them; folders and
// hidden names (files being written) are passed over.
QDirIterator queueFiles(const Logs& logs, const char* folder)
{
    return QDirIterator(SubfolderPath(logs.folder(), QString::fromLatin1(folder)), QDir::Files);
}
} // namespace

Dispatcher::Dispatcher(Logs& logs, Settings& settings, ConnectionTables& tables, QObject* parent)
    : QObject(parent), logs_(logs), settings_(settings), tables_(tables),
      queue_(logs), disposition_(logs, settings), addresses_(logs, settings, tables.CnxOut(1).DNS.lookups())
{
    tmrVerifOutBox.setInterval(kTimerInterval);
    tmrVerifDeferred.setInterval(kTimerInterval);
    connect(&tmrVerifOutBox, &QTimer::timeout, this, &Dispatcher::outboxTick);
    connect(&tmrVerifDeferred, &QTimer::timeout, this, &Dispatcher::VerifDeferred);
    tmrDeferredDue.setSingleShot(true);
    tmrDeferredDue.setTimerType(Qt::PreciseTimer);
    connect(&tmrDeferredDue, &QTimer::timeout, this, &Dispatcher::VerifDeferred);
}

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

void Dispatcher::queueChanged()
{
    if (dispatchPosted_)
        return;
    dispatchPosted_ = true;
    QMetaObject::invokeMethod(this, [this] {
        dispatchPosted_ = false;
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
// the setting is switched off.
void Dispatcher::outboxTick()
{
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
        // Stops at the first file it can dispatch: a call costs the entries it skips, no more.
        const QSet<QByteArray> claimed = claimedFiles();
        FolderScan files(SubfolderPath(logs_.folder(), QStringLiteral("OutBox")));
        while (const std::optional<QByteArray> name = files.nextFile()) {
            if (claimed.contains(*name))
                continue; // being delivered
            const QString file = QFile::decodeName(*name);
            logs_.DbgAdd("<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock()) + ": OUT demande d'envoi demandée ("
                         + file.toUtf8() + ")</FONT><BR>");
            SendOutSmtp(file);
            return;
        }
        enableOutboxTimer();
    });
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
        const uint8_t i = *free;
        tables_.LastCnxOut = i;
        logs_.DbgAdd(stamp + ": Connexion OUT trouvée: " + number(i) + "</FONT><BR>");

        CConnexion& cnx = tables_.CnxOut(i);
        cnx.Connexion = i;
        cnx.CnxType = "OUT";
        cnx.setStatus(Taken);
        cnx.CurrentOutFile = file;
        cnx.CurrentRcptTo = 0;
        // The slot is busy from here on, so it owns its socket from here on (a release needs it).
        tables_.LoadSmtpDistant(i);
        SlotDelivery& slot = slots_[i];
        slot.generation += 1;
        slot.triedInClear = false;
        slot.arrival = QFileInfo(queue_.path("OutBox", file)).lastModified();
        ReleasingOnFault(tables_, i, [&] {
            const std::optional<QByteArray> found = loadOrSetAside(cnx.Message, file);
            if (!found) {
                tables_.ReleaseSmtpDistant(i);
                postVerifOutBox();
                return;
            }
            cnx.Message.Essai = uint8_t(cnx.Message.Essai + 1);
            const QByteArray domain = *found;
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
std::optional<QByteArray> Dispatcher::loadOrSetAside(CMessage& message, const QString& file)
{
    try {
        message.MLoad(queue_.path("OutBox", file));
        // The whole message goes the way of its first recipient's domain.
        return DomainOf(message.RcptTo(1));
    } catch (const Fault& fault) {
        queue_.setAside(file);
        logs_.ErrorLog(GMTDate(logs_.clock()) + " D:MODULE[SendOutSmtp] error " + number(fault.number()) + ": "
                       + fault.description().toUtf8() + " => placed in the error directory");
        return std::nullopt;
    }
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
    target.exchanger = !settings_.UserSettings.SmtpServerDefined;
    target.clearOnly = clearOnly;
    target.knownAddresses = cnx.DNS.MX.record(cnx.DNS.CurrentMX).Addresses;
    const quint64 generation = slots_[i].generation;
    auto* session = new OutboundSession(
        logs_, settings_, addresses_, i, cnx, *socket, target, timeouts, [this] { VerifOutBox(); },
        [this, i, generation](const DeliveryOutcome& outcome) { sessionEnded(i, generation, outcome); });
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
    DispositionInput input;
    input.slot = i;
    input.file = cnx.CurrentOutFile;
    input.message = &cnx.Message;
    input.arrival = slot.arrival;
    input.outcome = outcome;
    input.moreHosts = outcome.kind != DeliveryOutcome::NoRoute && cnx.DNS.CurrentMX < cnx.DNS.MX.Count();
    input.clearRetryLeft = !slot.triedInClear;
    switch (disposition_.decide(input)) {
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
    tables_.ReleaseSmtpDistant(i);
    // A deferred message goes again as soon as its delay has run out.
    const QFileInfo deferred(queue_.path("Deferred", input.file));
    if (deferred.exists())
        Trapped(logs_, "D:MODULE[VerifDeferred]", [&] { wakeWhenDue(deferred.lastModified()); });
    if (outcome.kind == DeliveryOutcome::Transaction)
        postAfterSession();
    else
        postVerifOutBox();
    enableOutboxTimer();
}

void Dispatcher::VerifDeferred()
{
    Trapped(logs_, "D:MODULE[VerifDeferred]", [&] { moveDeferredBack(true); });
}

void Dispatcher::Flush()
{
    Trapped(logs_, "D:MODULE[Flush]", [&] { moveDeferredBack(false); });
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

void Dispatcher::moveDeferredBack(bool onlyDue)
{
    const QDateTime now = logs_.clock().now();
    std::optional<QDateTime> earliestLeft;
    bool moved = false;
    for (QDirIterator files = queueFiles(logs_, "Deferred"); files.hasNext();) {
        const QFileInfo info = files.nextFileInfo();
        if (onlyDue) {
            const QDateTime deferredAt = info.lastModified();
            if (deferredAt.secsTo(now) <= deferredDelaySeconds()) {
                if (!earliestLeft || deferredAt < *earliestLeft)
                    earliestLeft = deferredAt;
                continue;
            }
        }
        queue_.backToOutBox(info.filePath());
        moved = true;
    }
    if (moved)
        queueChanged();
    tmrDeferredDue.stop();
    if (earliestLeft)
        wakeWhenDue(*earliestLeft);
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
