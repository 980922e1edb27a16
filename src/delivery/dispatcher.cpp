#include "delivery/dispatcher.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTcpSocket>
#include <limits>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/queue_folders.h"
#include "log/logs.h"
#include "notify/generate_deferred_mail.h"
#include "notify/generate_return_mail.h"
#include "log/dates.h"
#include "platform/clock.h"
#include "platform/folder_scan.h"
#include "platform/program_folder.h"
#include "smtp_in/connexion.h"
#include "store/address.h"
#include "store/queue_files.h"

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
      session_(logs, settings, tables, *this)
{
    tmrVerifOutBox.setInterval(kTimerInterval);
    tmrVerifDeferred.setInterval(kTimerInterval);
    connect(&tmrVerifOutBox, &QTimer::timeout, this, &Dispatcher::outboxTick);
    connect(&tmrVerifDeferred, &QTimer::timeout, this, &Dispatcher::VerifDeferred);
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
}

void Dispatcher::enableOutboxTimer()
{
    if (!tmrVerifOutBox.isActive())
        tmrVerifOutBox.start();
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
        if (settings_.ActiveSettings.KeepLocal)
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
        session_.attach(i, tables_.LoadSmtpDistant(i));
        ReleasingOnFault(tables_, i, [&] {
            if (!loadOrSetAside(cnx.Message, file)) {
                tables_.ReleaseSmtpDistant(i);
                postVerifOutBox();
                return;
            }
            cnx.Message.Essai = uint8_t(cnx.Message.Essai + 1);
            // The whole message goes the way of its first recipient's domain.
            const QByteArray domain = GetDomain(logs_, cnx.Message.RcptTo(1));
            cnx.DNS.ResolveMx(domain, [this, i, file, domain] {
                Trapped(logs_, "D:MODULE[SendOutSmtp]",
                        [&] { ReleasingOnFault(tables_, i, [&] { routeResolved(i, file, domain); }); });
            });
        });
    });
}

// A queue file that cannot be read (cut short, garbage) would stop the queue at every scan: it is
// set aside in Error as it is, with a line in the error log, and the queue goes on.
bool Dispatcher::loadOrSetAside(CMessage& message, const QString& file)
{
    const QString path = QueueFilePath(logs_, "OutBox", file);
    try {
        message.MLoad(path);
        return true;
    } catch (const Fault& fault) {
        CopyQueueFileDurably(path, QueueFilePath(logs_, "Error", file));
        RemoveQueueFile(path);
        logs_.ErrorLog(GMTDate(logs_.clock()) + " D:MODULE[SendOutSmtp] error " + number(fault.number()) + ": "
                       + fault.description().toUtf8() + " => placed in the error directory");
        return false;
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
    cnx.setStatus(Connecting);
    logs_.DbgAdd("<FONT face='Verdana' size='2'>" + GMTDate(logs_.clock()) + ": Chargement connexion OUT["
                 + number(i) + "]</FONT><BR>");
    session_.connectToCurrentHost(i);
}

void Dispatcher::noRoute(uint8_t i, const QString& file, const QByteArray& domain)
{
    CConnexion& cnx = tables_.CnxOut(i);
    CMessage& message = cnx.Message;
    const QByteArray failure =
        "421 No MX DNS available for " + domain + " using NS " + settings_.ActiveSettings.DNSServer.toUtf8();
    // Written at every such attempt, also when the message is then deferred rather than bounced.
    logs_.MailLog(GMTDate(logs_.clock()) + " Postiq/smtpdistant: " + message.ID + " " + failure + " status=bounced");
    message.LastError = failure;
    if (message.Essai > settings_.ActiveSettings.MaxNbrAttempt && !message.ForSender) {
        message.MSave(QueueFilePath(logs_, "OutBox", file)); // the bounce reads the new error from it
        CGenerateReturnMail(logs_, settings_).Generate(file);
    } else {
        // A return-error mail without a route is deferred again at every attempt, never bounced.
        const QString deferred = QueueFilePath(logs_, "Deferred", file);
        message.MSave(deferred);
        UndoingOnFault([&] { RemoveQueueFile(QueueFilePath(logs_, "OutBox", file)); },
                       [&] { RemoveQueueFile(deferred); });
        cnx.setStatus(Taken);
    }
    enableOutboxTimer();
    // Released, so that unroutable messages can never hold every outbound slot.
    tables_.ReleaseSmtpDistant(i);
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

void Dispatcher::moveDeferredBack(bool onlyDue)
{
    const QDateTime now = logs_.clock().now();
    for (QDirIterator files = queueFiles(logs_, "Deferred"); files.hasNext();) {
        const QFileInfo info = files.nextFileInfo();
        if (onlyDue) {
            // Minutes to seconds in 16-bit arithmetic, as the setting is: above 546 it overflows.
            const int delay = settings_.ActiveSettings.AttemptDelay * 60;
            if (delay > std::numeric_limits<int16_t>::max() || delay < std::numeric_limits<int16_t>::min())
                throw Fault(ErrOverflow, QStringLiteral("Overflow"));
            const qint64 age = info.lastModified().secsTo(now);
            if (age <= delay)
                continue;
        }
        // The copy in OutBox is complete before the deferred one goes; the attempt count travels.
        const QString outBox = QueueFilePath(logs_, "OutBox", info.fileName());
        CopyQueueFileDurably(info.filePath(), outBox);
        UndoingOnFault([&] { RemoveQueueFile(info.filePath()); }, [&] { RemoveQueueFile(outBox); });
    }
}

} // namespace postiq
