#include <gtest/gtest.h>

#include "notify/dates.h"

using namespace postiq;

TEST(Dates, StampsHaveFixedWidthFields)
{
    const QDateTime t(QDate(2004, 2, 5), QTime(9, 5, 7));
    EXPECT_EQ(GMTDate(t), QByteArray("Feb 05 2004 09:05:07"));
    EXPECT_EQ(SerialDate(t), QByteArray("20040205090507"));
    EXPECT_EQ(GMTDate(QDateTime(QDate(2005, 3, 1), QTime(23, 59, 59))), QByteArray("Mar 01 2005 23:59:59"));
    EXPECT_EQ(SerialDate(QDateTime(QDate(2005, 1, 1), QTime(0, 0, 0))), QByteArray("20050101000000"));
}
