#include "log/dates.h"

#include "platform/clock.h"

#include <cstdio>

namespace postiq {

namespace {
const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const kDays[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
}

// Written by hand: every log line carries one, so it must cost next to nothing.
QByteArray GMTDate(const QDateTime& localTime)
{
    const QDate date = localTime.date();
    const QTime time = localTime.time();
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%s %02d %04d %02d:%02d:%02d", kMonths[date.month() - 1],
                                     date.day(), date.year(), time.hour(), time.minute(), time.second());
    return QByteArray(text, length);
}

QByteArray GMTDate(const Clock& clock) { return GMTDate(clock.now()); }

QByteArray SerialDate(const QDateTime& localTime)
{
    return localTime.toString(QStringLiteral("yyyyMMddHHmmss")).toLatin1();
}

QByteArray SerialDate(const Clock& clock) { return SerialDate(clock.now()); }

QByteArray Rfc5322Date(const QDateTime& localTime)
{
    const QDate date = localTime.date();
    const QTime time = localTime.time();
    const int offset = localTime.offsetFromUtc() / 60; // minutes east of UTC
    const int magnitude = offset < 0 ? -offset : offset;
    char text[48];
    const int length = std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d %c%02d%02d",
                                     kDays[date.dayOfWeek() - 1], date.day(), kMonths[date.month() - 1], date.year(),
                                     time.hour(), time.minute(), time.second(), offset < 0 ? '-' : '+',
                                     magnitude / 60, magnitude % 60);
    return QByteArray(text, length);
}

QByteArray Rfc5322Date(const Clock& clock) { return Rfc5322Date(clock.now()); }

} // namespace postiq
