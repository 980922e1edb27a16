#include "delivery/socket_errors.h"

namespace postiq {

int SocketErrorNumber(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError: return ErrConnectionRefused;
    case QAbstractSocket::RemoteHostClosedError: return ErrConnectionReset;
    case QAbstractSocket::HostNotFoundError: return ErrHostNotFound;
    case QAbstractSocket::SocketTimeoutError: return ErrTimedOut;
    case QAbstractSocket::SslHandshakeFailedError:
    case QAbstractSocket::SslInternalError:
    case QAbstractSocket::SslInvalidUserDataError: return ErrTlsFailed;
    default: return ErrOtherSocketBase + int(error);
    }
}

QByteArray ReasonText(int number)
{
    switch (number) {
    case ErrConnectionRefused: return "refused by peer";
    case ErrConnectionReset: return "reset by peer";
    case ErrHostNotFound: return "host not found";
    case ErrTimedOut: return "time out";
    case ErrTlsFailed: return "TLS error";
    case ErrNoStartTls: return "no STARTTLS";
    case ErrAuthFailed: return "authentication failed";
    case ErrBadReply: return "unexpected reply";
    default: return "unknown reason: " + QByteArray::number(number);
    }
}

} // namespace postiq
