#include <gtest/gtest.h>

#include <QDir>

#include "store/fresh_queue_name.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// Hands out the names given, in order, and counts the draws.
struct ScriptedDraw {
    QByteArrayList names;
    int draws = 0;
    QByteArray operator()() { return names.value(draws++, "EXHAUSTED"); }
};

QStringList everyEntry(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

} // namespace

TEST(FreshQueueName, DrawsAgainWhileAnyQueueFolderHoldsTheName)
{
    LogBench bench;
    for (const char* folder : {"OutBox", "Deferred", "error"}) // any letter case
        QDir().mkpath(bench.path(folder));
    writeFile(bench.path("OutBox/A1-2"), "x");
    writeFile(bench.path("Deferred/B2-2"), "x");
    writeFile(bench.path("error/C3-2"), "x");
    writeFile(bench.path("OutBox/D4"), "x");      // the bare random part does not clash
    writeFile(bench.path("language/E5-2"), "x"); // nor does a file outside the queue

    ScriptedDraw draw{{"A1", "B2", "C3", "D4", "E5"}};
    EXPECT_EQ(FreshQueueName(bench.logs, "-2", std::ref(draw)), QByteArray("D4-2"));
    EXPECT_EQ(draw.draws, 4);

    draw = ScriptedDraw{{"D4", "F6"}};
    EXPECT_EQ(FreshQueueName(bench.logs, {}, std::ref(draw)), QByteArray("F6"));
    EXPECT_EQ(draw.draws, 2);
}

// The caller answers for one message (a 4xx, a trapped delivery step); the relay goes on.
TEST(FreshQueueName, ABrokenDrawIsAFaultInsteadOfEndless)
{
    LogBench bench;
    QDir().mkpath(bench.path("OutBox"));
    writeFile(bench.path("OutBox/SAME"), "x");
    EXPECT_THROW(FreshQueueName(bench.logs, {}, [] { return QByteArray("SAME"); }), Fault);
    EXPECT_TRUE(bench.desktop.diagnostics.isEmpty());
}

