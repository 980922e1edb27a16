#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QSet>

#include "store/message.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A half is 1 to 5 upper-case hex digits, without leading zero, worth at most EFFFE.
bool IsHalf(const QByteArray& text)
{
    if (text.isEmpty() || text.size() > 5 || (text.size() > 1 && text.startsWith('0')))
        return false;
    bool ok = false;
    const uint value = text.toUInt(&ok, 16);
    return ok && value <= 0xEFFFE;
}

// The two halves are run together, so some way of cutting the name must give two valid halves.
bool SplitsIntoTwoHalves(const QByteArray& name)
{
    for (int cut = 1; cut < name.size(); ++cut) {
        if (IsHalf(name.left(cut)) && IsHalf(name.mid(cut)))
            return true;
    }
    return false;
}

} // namespace

TEST(RandomFileGet, NamesAreTwoHexHalvesAndMostlyDistinctInATightLoop)
{
    LogBench bench;
    const QRegularExpression shape(QStringLiteral("^[0-9A-F]{1,5}[0-9A-F]{1,5}$"));
    QSet<QByteArray> names;
    const int draws = 2000;
    for (int draw = 0; draw < draws; ++draw) {
        const QByteArray name = RandomFileGet(bench.logs);
        ASSERT_TRUE(shape.match(QString::fromLatin1(name)).hasMatch()) << name.constData();
        ASSERT_TRUE(SplitsIntoTwoHalves(name)) << name.constData();
        names.insert(name);
    }
    EXPECT_GE(names.size(), draws - 5);
}
