#include "smtp_in/received_header.h"

namespace postiq {

namespace {
QByteArray oneLine(QByteArray text)
{
    text.removeIf([](char c) { return c == '\r' || c == '\n' || c == '\0'; });
    return text;
}
} // namespace

QByteArray ReceivedHeader(const ReceivedFrom& from, const QByteArray& localHostName, const QByteArray& id,
                          const QByteArray& date)
{
    const QByteArray peer = (from.host.isEmpty() ? QByteArray() : oneLine(from.host) + ' ') + '[' + from.ip + ']';
    return "Received: from " + oneLine(from.heloName) + " (" + peer + ")\r\n\tby " + oneLine(localHostName)
        + " (Postiq) with " + (from.esmtp ? "ESMTP" : "SMTP") + " id " + id + ";\r\n\t" + date + "\r\n";
}

} // namespace postiq
