#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QSet>

#include "store/message.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

TEST(RandomFileGet, NamesAreTwoHexNumbersBelow983039AndMostlyDistinctInATightLoop)
{
    // Two numbers run together, each "0" or up to five upper-case digits without leading zero,
    // five digits only up to EFFFF.
    const QRegularExpression shape(QStringLiteral("^(?:0|[1-9A-F][0-9A-F]{0,3}|[1-9A-E][0-9A-F]{4}){2}$"));
    LogBench bench;
    QSet<QByteArray> names;
    for (int draw = 0; draw < 2000; ++draw) {
        const QByteArray name = RandomFileGet(bench.logs);
        ASSERT_TRUE(shape.match(QString::fromLatin1(name)).hasMatch()) << name.constData();
        names.insert(name);
    }
    EXPECT_GE(names.size(), 1995);
}
