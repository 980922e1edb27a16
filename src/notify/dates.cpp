#include "notify/dates.h"

#include "platform/clock.h"

namespace postiq {

namespace {
const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
}

QByteArray GMTDate(const QDateTime& localTime)
{
    const QDate date = localTime.date();
    return QByteArray(kMonths[date.month() - 1]) + ' '
        + QByteArray::number(date.day()).rightJustified(2, '0') + ' '
        + QByteArray::number(date.year()).rightJustified(4, '0') + ' '
        + localTime.time().toString(QStringLiteral("HH:mm:ss")).toLatin1();
}

QByteArray GMTDate(const Clock& clock) { return GMTDate(clock.now()); }

QByteArray SerialDate(const QDateTime& localTime)
{
    return localTime.toString(QStringLiteral("yyyyMMddHHmmss")).toLatin1();
}

QByteArray SerialDate(const Clock& clock) { return SerialDate(clock.now()); }

} // namespace postiq
