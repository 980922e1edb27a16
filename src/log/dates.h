#pragma once

#include <QByteArray>
#include <QDateTime>

namespace postiq {

class Clock;

// "Feb 05 2004 09:05:07": the local time at the head of log lines and in notices. No zone is
// printed and nothing is converted to UTC, despite the name.
QByteArray GMTDate(const QDateTime& localTime);
QByteArray GMTDate(const Clock& clock);

// "20040205090507": 14 digits that differ from second to second.
QByteArray SerialDate(const QDateTime& localTime);
QByteArray SerialDate(const Clock& clock);

// "Thu, 05 Feb 2004 09:05:07 +0100": the date of mail headers (RFC 5322), in the local time with
// the zone it really has at that instant.
QByteArray Rfc5322Date(const QDateTime& localTime);
QByteArray Rfc5322Date(const Clock& clock);

} // namespace postiq
