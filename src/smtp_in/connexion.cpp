#include "smtp_in/connexion.h"

#include <QHostAddress>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <chrono>

#include "log/logs.h"
#include "log/dates.h"

namespace postiq {

namespace {
constexpr int kLastUsableInSlot = ConnectionTables::kUpperBound - 1; // 100 is never handed out
constexpr std::chrono::seconds kGoodbyeGrace{5};

QByteArray number(int n) { return QByteArray::number(n); }

// A fault about entry n of a table or socket array, such as "Smtp(7): socket instance not loaded".
Fault entryFault(ErrorNumber error, const char* array, int n, const char* what)
{
    return Fault(error, QStringLiteral("%1(%2): %3")
                            .arg(QLatin1String(array))
                            .arg(n)
                            .arg(QLatin1String(what)));
}
} // namespace

CConnexion::CConnexion(Logs& logs, const Settings& settings, DnsCache& cache,
                       ConnectionsView* const& view)
    : Message(logs), DNS(logs, settings, cache), view_(view)
{
}

void CConnexion::setStatus(int32_t value)
{
    status_ = value;
    if (value != 0 && view_)
        view_->updateConnection(CnxType, Connexion);
}

ConnectionTables::ConnectionTables(Logs& logs, const Settings& settings, DnsCache& cache,
                                   ConnectionsView* view)
    : logs_(logs), settings_(settings), cache_(cache), view_(view),
      listener_(new QTcpServer(&socketOwner_))
{
}

ConnectionTables::~ConnectionTables()
{
    // Nobody may hear from a socket while the tables go away; socketOwner_ then deletes them.
    silenceAll();
}

void ConnectionTables::silenceAll()
{
    for (QPointer<QTcpSocket>& socket : smtpDistant_) {
        if (socket)
            socket->disconnect();
    }
    for (QPointer<QObject>& session : inSessions_) {
        if (!session)
            continue;
        for (QObject* part : session->findChildren<QObject*>()) {
            part->disconnect();
            if (auto* timer = qobject_cast<QTimer*>(part))
                timer->stop();
        }
    }
    listener_->disconnect();
    listener_->close();
}

CConnexion& ConnectionTables::slot(SlotTable& table, int i, const char* name)
{
    if (i < 0 || i > kUpperBound)
        throw entryFault(ErrOutOfRange, name, i, "no such connection slot");
    if (!table[i])
        table[i] = std::make_unique<CConnexion>(logs_, settings_, cache_, view_);
    return *table[i];
}

CConnexion& ConnectionTables::CnxIn(int i) { return slot(cnxIn_, i, "CnxIn"); }
CConnexion& ConnectionTables::CnxOut(int i) { return slot(cnxOut_, i, "CnxOut"); }

QTcpServer& ConnectionTables::SmtpListener() { return *listener_; }

QPointer<QTcpSocket>& ConnectionTables::unloadedInstance(SocketArray& sockets, int n,
                                                        const char* arrayName)
{
    if (n < 1 || n > kUpperBound)
        throw entryFault(ErrOutOfRange, arrayName, n, "no such socket instance");
    if (sockets[n])
        throw entryFault(ErrInvalidCall, arrayName, n, "socket instance already loaded");
    return sockets[n];
}

QObject* ConnectionTables::InSession(int n) const
{
    return n >= 1 && n <= kUpperBound ? inSessions_[n].data() : nullptr;
}

QTcpSocket* ConnectionTables::SmtpDistant(int n) const
{
    return n >= 1 && n <= kUpperBound ? smtpDistant_[n].data() : nullptr;
}

QTcpSocket& ConnectionTables::LoadSmtpDistant(int n)
{
    QPointer<QTcpSocket>& instance = unloadedInstance(smtpDistant_, n, "SmtpDistant");
    // A TLS-capable socket, so that a submission route can secure it; plain until asked.
    instance = new QSslSocket(&socketOwner_);
    return *instance;
}

void ConnectionTables::destroyInstance(QPointer<QTcpSocket>& socket)
{
    QTcpSocket* instance = socket.data();
    socket.clear();
    // The release may run inside one of the socket's own signals: cut it off now, delete later.
    instance->disconnect();
    if (instance->state() != QAbstractSocket::UnconnectedState && instance->bytesToWrite() > 0) {
        // A last word (a QUIT) still goes out; the object goes with the connection, or after a
        // grace period when the peer does not take it.
        QObject::connect(instance, &QAbstractSocket::disconnected, instance, &QObject::deleteLater);
        QTimer::singleShot(kGoodbyeGrace, instance, [instance] {
            instance->abort();
            instance->deleteLater();
        });
        instance->disconnectFromHost();
        return;
    }
    instance->abort();
    instance->deleteLater();
}

QByteArray ConnectionTables::stamp() const { return GMTDate(logs_.clock()); }

std::optional<uint8_t> ConnectionTables::FindFreeCnxIn()
{
    logs_.DbgAdd(stamp() + ": IN demande de connexion demandée<BR>");
    logs_.DbgAdd(stamp() + ": Recherche d'une connexion IN libre<BR>");
    int i = LastCnxIn;
    if (i < 1 || i > kLastUsableInSlot)
        i = 1;
    // One full round over 1..99; a full table is the caller's to refuse, never a stall.
    for (int looked = 0; looked < kLastUsableInSlot; ++looked) {
        if (CnxIn(i).Status() == 0) {
            LastCnxIn = static_cast<uint8_t>(i);
            logs_.DbgAdd(stamp() + ": Connexion IN trouvée: " + number(i) + "<BR>");
            logs_.DbgAdd(stamp() + ": Chargement connexion IN[" + number(i) + "]<BR>");
            return LastCnxIn;
        }
        i = i >= kLastUsableInSlot ? 1 : i + 1;
    }
    return std::nullopt;
}

bool ConnectionTables::HasFreeCnxIn()
{
    for (int i = 1; i <= kLastUsableInSlot; ++i) {
        if (CnxIn(i).Status() == 0)
            return true;
    }
    return false;
}

CConnexion& ConnectionTables::LoadCnxIn(uint8_t i, const QByteArray& peer, QObject* session)
{
    CConnexion& cnx = CnxIn(i);
    if (inSessions_[i])
        throw entryFault(ErrInvalidCall, "CnxIn", i, "connection slot already taken");
    inSessions_[i] = session;
    cnx.Connexion = i;
    cnx.CnxType = "IN";
    cnx.SrvClient = peer;
    return cnx;
}

void ConnectionTables::releaseSlot(CConnexion& cnx, const QByteArray& cnxType, uint8_t n,
                                   const std::function<void()>& unload)
{
    cnx.setStatus(0);
    cnx.SmtpCommand.clear();
    cnx.Message.MClear();
    unload();
    logs_.DbgAdd("<FONT face='Verdana' size='2'>Release connexion " + cnxType.toLower() + ": "
                 + number(n) + "</FONT><BR>");
    if (view_)
        view_->updateConnection(cnxType, n);
}

void ConnectionTables::ReleaseSmtpLocal(uint8_t n)
{
    logs_.guarded("MOD:MODConnexion[ReleaseSmtpLocal]", [&] {
        releaseSlot(CnxIn(n), "IN", n, [&] {
            if (!inSessions_[n])
                throw entryFault(ErrInvalidCall, "CnxIn", n, "no session holds this slot");
            inSessions_[n].clear(); // the session goes by itself
        });
    });
}

void ConnectionTables::ReleaseSmtpDistant(uint8_t n)
{
    logs_.guarded("MOD:MODConnexion[ReleaseSmtpDistant]", [&] {
        CConnexion& cnx = CnxOut(n);
        cnx.DNS.MX.Clear();
        releaseSlot(cnx, "OUT", n, [&] {
            if (!smtpDistant_[n])
                throw entryFault(ErrInvalidCall, "SmtpDistant", n, "socket instance not loaded");
            destroyInstance(smtpDistant_[n]);
        });
        // A freed outbound slot means the queue can move again.
        if (enableOutboxTimer)
            enableOutboxTimer();
    });
}

QByteArray GetResponse(const QByteArray& text)
{
    const qsizetype space = text.indexOf(' ');
    QByteArray word = space < 0 ? text : text.left(space);
    if (word.endsWith("\r\n"))
        word.chop(2);
    return word.toUpper();
}

QByteArray GetResponseCode(const QByteArray& text) { return text.left(3); }

QByteArray PlainAddressText(const QHostAddress& address)
{
    bool isIPv4 = false;
    const quint32 v4 = address.toIPv4Address(&isIPv4);
    return (isIPv4 ? QHostAddress(v4).toString() : address.toString()).toLatin1();
}

} // namespace postiq
