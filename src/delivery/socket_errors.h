#pragma once

#include <QAbstractSocket>
#include <QByteArray>

namespace postiq {

// The numbers that delivery failures are logged and decided by. The four that the failure rules
// name keep their classic socket numbers; every other error of the socket layer keeps a number of
// its own (documented in the README) and reads "unknown reason: " + number.
enum DeliveryErrorNumber : int {
    ErrConnectionReset = 10054,   // the server closed or reset the connection mid-session
    ErrTimedOut = 10060,          // no connection, or a silent server, within the time allowed
    ErrConnectionRefused = 10061, // nothing listens there
    ErrHostNotFound = 11001,      // the server's name does not resolve
    ErrOtherSocketBase = 20000,   // + the socket layer's own error code, for anything else
    // The secure opening of a submission route; each fails the connection, never falls back to plain.
    ErrTlsFailed = 30001,  // the TLS handshake failed: certificate not trusted or for another host, ...
    ErrNoStartTls = 30002, // an smtp:// server that does not offer STARTTLS, or refuses it
    ErrAuthFailed = 30003, // the login was refused, or no password could be read for it
    ErrBadReply = 30004,   // a reply that makes no sense where it came (garbage, a code out of place)
};

int SocketErrorNumber(QAbstractSocket::SocketError error);

// The reason words of a failure number: "refused by peer", "reset by peer", "host not found",
// "time out", "TLS error", "no STARTTLS", "authentication failed", or "unknown reason: " followed
// by the number.
QByteArray ReasonText(int number);

} // namespace postiq
