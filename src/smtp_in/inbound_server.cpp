#include "smtp_in/inbound_server.h"

#include <QTcpServer>
#include <QTcpSocket>

#include "log/dates.h"
#include "log/logs.h"
#include "platform/free_memory.h"
#include "smtp_in/inbound_session.h"

namespace postiq {

namespace {
// How long a full table waits for the ends of clients that have just hung up.
constexpr std::chrono::milliseconds kFullTableGrace{50};
} // namespace

InboundServer::InboundServer(Logs& logs, const Settings& settings, ConnectionTables& tables, Queue& queue,
                             QObject* parent)
    : QObject(parent), logs_(logs), settings_(settings), tables_(tables), queue_(queue),
      idleLimit_(InboundSession::kIdleLimit)
{
    connect(&tables_.SmtpListener(), &QTcpServer::newConnection, this, &InboundServer::Smtp_ConnectionRequest);
    fullTableGrace_.setSingleShot(true);
    fullTableGrace_.setInterval(kFullTableGrace);
    connect(&fullTableGrace_, &QTimer::timeout, this, &InboundServer::endFullTableGrace);
    returnMemory_.setSingleShot(true);
    returnMemory_.setInterval(100);
    connect(&returnMemory_, &QTimer::timeout, this, [] { ReturnFreeMemory(); });
}

void InboundServer::Smtp_ConnectionRequest()
{
    logs_.guarded("FRM:MAIN[Smtp_ConnectionRequest]", [this] {
        QTcpServer& listener = tables_.SmtpListener();
        while (listener.hasPendingConnections()) {
            // A burst of clients that hang up at once can fill every slot with connections whose
            // end the loop has not read yet: they come free within a turn or two, so a newcomer
            // is told to retry only when the table is still full a moment later.
            if (!tables_.HasFreeCnxIn() && !fullTableGrace_.isActive() && !graceOver_) {
                fullTableGrace_.start();
                return;
            }
            if (fullTableGrace_.isActive() && !tables_.HasFreeCnxIn())
                return; // the grace timer comes back for it
            acceptRequest(listener.nextPendingConnection());
        }
    });
}

void InboundServer::endFullTableGrace()
{
    graceOver_ = true;
    Smtp_ConnectionRequest();
    graceOver_ = false;
}

void InboundServer::acceptRequest(QTcpSocket* socket)
{
    const std::optional<uint8_t> free = tables_.FindFreeCnxIn();
    if (!free) {
        refuseBusy(socket);
        return;
    }
    (new InboundSession(*this, *free, socket))->start();
}

// A full table never stalls the program: the newcomer is told to come back and closed.
void InboundServer::refuseBusy(QTcpSocket* socket)
{
    logs_.MailLog(GMTDate(logs_.clock()) + " Postiq/smtplocal: 421 busy, reject from " + socket->peerName().toUtf8()
                  + " [" + PlainAddressText(socket->peerAddress()) + "]");
    socket->setParent(this);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::errorOccurred, socket, &QObject::deleteLater);
    socket->write("421 Postiq busy, try again later\r\n");
    socket->disconnectFromHost();
    if (socket->state() == QAbstractSocket::UnconnectedState)
        socket->deleteLater();
}

void InboundServer::sessionEnded(bool heldLargeMessage)
{
    if (heldLargeMessage)
        returnMemory_.start();
}

} // namespace postiq
