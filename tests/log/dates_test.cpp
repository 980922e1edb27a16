#include <gtest/gtest.h>

#include "log/dates.h"

#include <QTimeZone>

using namespace postiq;

TEST(Dates, StampsHaveFixedWidthFields)
{
    const QDateTime t(QDate(2004, 2, 5), QTime(9, 5, 7));
    EXPECT_EQ(GMTDate(t), QByteArray("Feb 05 2004 09:05:07"));
    EXPECT_EQ(SerialDate(t), QByteArray("20040205090507"));
    EXPECT_EQ(GMTDate(QDateTime(QDate(2005, 3, 1), QTime(23, 59, 59))), QByteArray("Mar 01 2005 23:59:59"));
    EXPECT_EQ(SerialDate(QDateTime(QDate(2005, 1, 1), QTime(0, 0, 0))), QByteArray("20050101000000"));
}

TEST(Dates, HeaderDatesCarryTheRealZone)
{
    const QDateTime east(QDate(2004, 2, 5), QTime(9, 5, 7), QTimeZone(3600));
    EXPECT_EQ(Rfc5322Date(east), QByteArray("Thu, 05 Feb 2004 09:05:07 +0100"));
    const QDateTime west(QDate(2026, 11, 23), QTime(23, 0, 0), QTimeZone(-(3 * 3600 + 1800)));
    EXPECT_EQ(Rfc5322Date(west), QByteArray("Mon, 23 Nov 2026 23:00:00 -0330"));
}
