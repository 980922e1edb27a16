#include <QDir>
#include <QTemporaryDir>
#include <algorithm>
#include <gtest/gtest.h>

#include "core/kept_local_relay.h"
#include "store/message.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/thread_clients.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// One queued message as it reads back from its file.
struct Stored {
    QByteArray from;
    QByteArray to;
    QByteArray data;
    bool operator<(const Stored& other) const
    {
        return std::tie(data, from, to) < std::tie(other.data, other.from, other.to);
    }
};

// The real relay, headless, keeping every message in its outbox.
struct RunningRelay : KeptLocalRelay {
    // The process is only known to have died once its end has gone through the event loop.
    bool stillRunning()
    {
        spinUntil([&] { return !relay->running(); }, 300);
        return relay->running();
    }
    // Why the relay is gone, for the failure message.
    std::string death()
    {
        if (relay->running())
            return {};
        const int status = relay->waitForExit();
        return (status < 0 ? std::string("relay crashed") : "relay ended with status " + std::to_string(status))
            + "; its standard error: " + relay->standardError().toStdString();
    }

    // Every queue file of the outbox, read back the way the delivery side will read it.
    std::vector<Stored> outBox()
    {
        LogBench bench;
        std::vector<Stored> stored;
        const QDir outBoxDir(folder + QStringLiteral("/OutBox"));
        for (const QString& name : outBoxDir.entryList(QDir::Files)) {
            CMessage message(bench.logs);
            try {
                message.MOpen(outBoxDir.filePath(name));
            } catch (const ProgramEnded&) {
                ADD_FAILURE() << "unreadable queue file " << name.toStdString();
                continue;
            }
            QByteArray recipients; // all of them, so that a stray second one shows
            for (int i = 1; i <= message.MRcptToCount(); ++i)
                recipients += message.RcptTo(i);
            stored.push_back({message.From, recipients, WithoutReceived(message.Data)});
        }
        return stored;
    }
};

// A message that names its client and its number in its addresses, subject and body.
Stored uniqueMessage(const char* phase, int client, int number)
{
    const QByteArray tag = QByteArray(phase) + '-' + QByteArray::number(client) + '-' + QByteArray::number(number);
    return {"<sender-" + tag + "@load.example>", "<rcpt-" + tag + "@dest.example>",
            "Subject: load " + tag + "\r\n\r\nBody of " + tag + "\r\n.. a stuffed line of " + tag + "\r\n"};
}

HandOver handOver(quint16 port, const Stored& message)
{
    return handOverMessage(port, message.from.toStdString(), message.to.toStdString(), message.data.toStdString());
}

// The outcomes of one phase: the messages accepted, the busy refusals and the failures.
struct Tally {
    std::vector<Stored> accepted;
    int busy = 0;
    std::vector<std::string> failures;

    void add(const HandOver& result, const Stored& message)
    {
        if (result.outcome == HandOver::Accepted)
            accepted.push_back(message);
        else if (result.outcome == HandOver::Busy)
            ++busy;
        else
            failures.push_back(message.to.toStdString() + " " + result.detail);
    }
    std::string firstFailures() const
    {
        std::string text = std::to_string(failures.size()) + " failed";
        for (size_t i = 0; i < failures.size() && i < 3; ++i)
            text += "; " + failures[i];
        return text;
    }
};

// The test's own loop keeps reading the relay's output while the clients run.
void serveEventLoop() { spinUntil([] { return false; }, 20); }

constexpr int kSteadyClients = 20;
constexpr int kMessagesPerClient = 50;
constexpr int kBurstClients = 99;

} // namespace

TEST_F(RunningRelay, ParallelClientsEachGetTheirMessagesQueuedExactlyOnce)
{
    Tally steady;
    // 20 clients at a time, each handing over its 50 messages one per connection.
    const auto handedOver = runInParallel(
        kSteadyClients,
        [&](int client) {
            std::vector<HandOver> results;
            for (int number = 0; number < kMessagesPerClient; ++number)
                results.push_back(handOver(port, uniqueMessage("steady", client, number)));
            return results;
        },
        serveEventLoop);
    for (int client = 0; client < kSteadyClients; ++client)
        for (int number = 0; number < kMessagesPerClient; ++number)
            steady.add(handedOver[client][number], uniqueMessage("steady", client, number));
    EXPECT_EQ(steady.accepted.size(), size_t(kSteadyClients * kMessagesPerClient)) << steady.firstFailures();
    EXPECT_EQ(steady.busy, 0);
    ASSERT_TRUE(stillRunning()) << death();

    // Then 99 at once, one message each; a full table may tell a few to come back later.
    Tally burst;
    const auto burstResults = runInParallel(
        kBurstClients, [&](int client) { return handOver(port, uniqueMessage("burst", client, 0)); }, serveEventLoop);
    for (int client = 0; client < kBurstClients; ++client)
        burst.add(burstResults[client], uniqueMessage("burst", client, 0));
    EXPECT_EQ(burst.accepted.size() + size_t(burst.busy), size_t(kBurstClients)) << burst.firstFailures();
    RecordProperty("busy_refusals", burst.busy);
    ASSERT_TRUE(stillRunning()) << death();

    // Exactly one queue file per accepted message, each with its own envelope and content.
    std::vector<Stored> expected = steady.accepted;
    expected.insert(expected.end(), burst.accepted.begin(), burst.accepted.end());
    for (Stored& message : expected)
        message.data = Unstuffed(message.data);
    std::vector<Stored> stored = outBox();
    std::sort(stored.begin(), stored.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(stored.size(), expected.size());
    std::vector<Stored> missing;
    std::vector<Stored> unexpected;
    std::set_difference(expected.begin(), expected.end(), stored.begin(), stored.end(), std::back_inserter(missing));
    std::set_difference(stored.begin(), stored.end(), expected.begin(), expected.end(),
                        std::back_inserter(unexpected));
    EXPECT_TRUE(missing.empty()) << missing.size() << " missing, first: " << missing.front().data.toStdString();
    EXPECT_TRUE(unexpected.empty()) << unexpected.size() << " unexpected (or twice), first: "
                                    << unexpected.front().data.toStdString();
}

TEST_F(RunningRelay, HostileClientsLeaveTheRelayServingOthers)
{
    constexpr int kHostileClients = 6;
    constexpr int kRounds = 100;
    const std::string transaction = "HELO burst\r\nMAIL FROM:<b@burst.example>\r\nRCPT TO:<c@burst.example>\r\n"
                                    "DATA\r\nSubject: burst\r\n\r\nall in one write\r\n.\r\nQUIT\r\n";
    // A whole transaction, a packet per command, none waiting for its reply: each arrives while the
    // relay is still busy with the one before, and the session ends with a QUIT amid the others.
    const std::vector<std::string> pipelined = {"HELO apart\r\n", "MAIL FROM:<b@apart.example>\r\n",
                                                "RCPT TO:<c@apart.example>\r\n", "DATA\r\n",
                                                "Subject: apart\r\n\r\n", "body\r\n", ".\r\n", "QUIT\r\n"};
    runInParallel(
        kHostileClients,
        [&](int client) {
            std::mt19937 random(client + 1); // a fixed sequence per client, so that a failure repeats
            for (int round = 0; round < kRounds; ++round) {
                switch (random() % 10) {
                case 0: sendRandomBytes(port, random, false); break;
                case 1: sendRandomBytes(port, random, true); break;
                case 2: sendBurst(port, "NOOP\r\nHELO a\r\nRSET\r\nNOOP\r\n"); break;
                case 3: sendBurst(port, transaction); break;
                case 4: endMidCommand(port, "MAIL FROM:<half", false); break;
                case 5: endMidCommand(port, "HELO x\r\nRCPT T", true); break;
                case 6: endInData(port, "Subject: cut\r\n\r\npart of a bo", false); break;
                case 7: endInData(port, "Subject: reset\r\n\r\nline\r\n", true); break;
                case 8: quitAndVanish(port, false); break;
                default: quitAndVanish(port, true); break;
                }
                // Sessions that end with a QUIT keep slots being freed while the others misbehave.
                sendApart(port, pipelined, std::chrono::microseconds(100));
            }
            return 0;
        },
        serveEventLoop);
    ASSERT_TRUE(stillRunning()) << death();

    // A well-behaved program still gets every reply and its message queued.
    const QByteArray content = "Subject: after the storm\r\n\r\nstill here\r\n";
    Client client(port);
    play(client, kEnvelope + Dialogue{{content + ".\r\n", kAccepted}, {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_TRUE(client.closed());
    const std::vector<Stored> stored = outBox();
    EXPECT_EQ(std::count_if(stored.begin(), stored.end(),
                            [&](const Stored& s) {
                                return s.from == "<a@x.com>" && s.to == "<b@y.org>" && s.data == content;
                            }),
              1);
    EXPECT_TRUE(stillRunning()) << death();
}
