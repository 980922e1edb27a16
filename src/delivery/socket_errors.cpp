#include "delivery/socket_errors.h"

namespace postiq {

int SocketErrorNumber(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError: return ErrConnectionRefused;
    case QAbstractSocket::RemoteHostClosedError: return ErrConnectionReset;
    case QAbstractSocket::HostNotFoundError: return ErrHostNotFound;
    case QAbstractSocket::SocketTimeoutError: return ErrTimedOut;
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
    default: return "unknown reason: " + QByteArray::number(number);
    }
}

} // namespace postiq
