#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>

#include "platform/quit_signals.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;

namespace {

bool blocked(int signal)
{
    sigset_t current;
    pthread_sigmask(SIG_BLOCK, nullptr, &current);
    return sigismember(&current, signal) == 1;
}

bool defaultDisposition(int signal)
{
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

// Counts quit requests as the event loop delivers them.
struct QuitCounter {
    QuitSignals& source;
    int count = 0;
    explicit QuitCounter(QuitSignals& s) : source(s)
    {
        QObject::connect(&source, &QuitSignals::quitRequested, [this] { ++count; });
    }
    bool reaches(int n) { return spinUntil([&] { return count >= n; }, 2000) && count == n; }
};

struct QuitSignalsTest : ::testing::Test {
    void SetUp() override
    {
        QuitSignals::blockInProcess(); // as main() does; a raised signal then waits instead of killing
    }
};

TEST_F(QuitSignalsTest, ASignalThatCameBeforeTheObjectIsStillTakenByTheLoop)
{
    for (QuitSignals::Mechanism mechanism : {QuitSignals::Mechanism::SignalDescriptor,
                                             QuitSignals::Mechanism::HandlerPipe}) {
        const int mechanismNumber = int(mechanism);
        raise(SIGTERM); // during start-up, before anybody reads the signals
        QuitSignals quitSignals(nullptr, mechanism);
        ASSERT_EQ(quitSignals.mechanism(), mechanism);
        QuitCounter counter(quitSignals);
        EXPECT_TRUE(counter.reaches(1)) << mechanismNumber;

        raise(SIGINT); // and one while the loop runs
        EXPECT_TRUE(counter.reaches(2)) << mechanismNumber;
    }
}

TEST_F(QuitSignalsTest, TheHandlerFallbackPutsEverythingBackWhenItGoes)
{
    {
        QuitSignals quitSignals(nullptr, QuitSignals::Mechanism::HandlerPipe);
        ASSERT_EQ(quitSignals.mechanism(), QuitSignals::Mechanism::HandlerPipe);
        EXPECT_FALSE(blocked(SIGTERM)); // never blocked with nobody to read them
        EXPECT_FALSE(defaultDisposition(SIGTERM));
    }
    EXPECT_TRUE(blocked(SIGINT));
    EXPECT_TRUE(blocked(SIGTERM));
    EXPECT_TRUE(defaultDisposition(SIGINT));
    EXPECT_TRUE(defaultDisposition(SIGTERM));
}

} // namespace
