#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>

#include "core/postiq_process.h"
#include "store/message.h"
#include "support/fake_exchanger.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/thread_clients.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// How many times the relay is killed; bench/crash.sh asks for more than the suite's default.
int killCount()
{
    const QByteArray text = qgetenv("POSTIQ_CRASH_KILLS");
    return text.isEmpty() ? 2 : text.toInt();
}

constexpr int kSenders = 20;
const QHostAddress kExchangerAddress(QStringLiteral("127.0.0.91"));

// The tag every message carries in its body, so that it is found wherever it ends up.
QByteArray tagOf(const QByteArray& body)
{
    static const QRegularExpression tag(QStringLiteral("Body of (m-\\d+-\\d+)"));
    return tag.match(QString::fromLatin1(body)).captured(1).toLatin1();
}

// The real relay on a folder, killed with SIGKILL and started again on the same folder.
struct KilledRelay {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    quint16 port = freeListenPort();
    std::unique_ptr<PostiqProcess> relay;
    int starts = 0;

    QString mailLog() const { return folder + QStringLiteral("/maillog.txt"); }
    // Starts the relay and waits for its service; false when it did not come up cleanly.
    bool start()
    {
        relay = std::make_unique<PostiqProcess>(folder, root.path() + QStringLiteral("/config"));
        ++starts;
        return spinUntil([&] { return readFile(mailLog()).count("Start of SMTP service") == starts; }, 15000)
            && relay->running();
    }
    void kill()
    {
        ::kill(pid_t(relay->processId()), SIGKILL);
        relay->waitForExit();
    }
    // The tags of every queued message, in any queue folder.
    std::multiset<QByteArray> queued() const
    {
        LogBench bench;
        std::multiset<QByteArray> tags;
        for (const char* name : {"OutBox", "Deferred", "Error"}) {
            const QDir dir(folder + '/' + QString::fromLatin1(name));
            for (const QString& file : dir.entryList(QDir::Files)) {
                CMessage message(bench.logs);
                try {
                    message.MOpen(dir.filePath(file));
                } catch (const ProgramEnded&) {
                    ADD_FAILURE() << "unreadable queue file " << file.toStdString();
                    continue;
                }
                tags.insert(tagOf(message.Data));
            }
        }
        return tags;
    }
    int queueLength() const { return int(QDir(folder + QStringLiteral("/OutBox")).entryList(QDir::Files).size()); }
};

} // namespace

// Twenty mail programs send while the relay is killed at random moments and started again, with
// delivery running to an exchanger; a quarter of them send texts of several hundred KB. Every
// message that was answered "250 Message accepted for delivery" must be delivered or still queued
// afterwards. A kill between the exchanger's 250 and the removal of the file sends that message
// again: such duplicates are counted, not failed.
TEST(CrashTest, EveryAcceptedMessageSurvivesKills)
{
    const int kills = killCount();
    FakeExchanger exchanger;
    ASSERT_TRUE(exchanger.listen(kExchangerAddress, 25));
    KilledRelay relay;
    QDir().mkpath(relay.folder);
    writeFile(relay.folder + QStringLiteral("/Postiq.ini"), "ListenPort\t" + QByteArray::number(relay.port)
                  + "\r\nKeepLocal\tOff\r\nSmtpServer\t" + kExchangerAddress.toString().toLatin1() + "\r\n");
    ASSERT_TRUE(relay.start()) << relay.relay->standardError().constData();

    std::atomic<bool> stop = false;
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> gapMs(300, 8000);
    QDeadlineTimer nextKill(gapMs(random));
    int killed = 0;
    bool cleanStarts = true;
    // Some senders send texts large enough to be on disk in part when a kill comes.
    std::string largeBody;
    while (largeBody.size() < 384 * 1024)
        largeBody += std::string(78, 'l') + "\r\n";
    const auto senders = runInParallel(
        kSenders,
        [&](int sender) {
            std::vector<QByteArray> accepted;
            for (int number = 0; !stop; ++number) {
                const std::string tag = "m-" + std::to_string(sender) + "-" + std::to_string(number);
                const HandOver result = handOverMessage(relay.port, "<s" + tag + "@crash.example>",
                                                        "<r" + tag + "@dest.example>",
                                                        "Subject: " + tag + "\r\n\r\nBody of " + tag + "\r\n"
                                                            + (sender % 4 == 0 ? largeBody : std::string()));
                if (result.outcome == HandOver::Accepted)
                    accepted.push_back(QByteArray::fromStdString(tag));
                std::this_thread::sleep_for(std::chrono::milliseconds(result.outcome == HandOver::Accepted ? 150 : 50));
            }
            return accepted;
        },
        [&] {
            spinUntil([] { return false; }, 20); // the exchanger and the relay's output
            if (!nextKill.hasExpired() || stop)
                return;
            if (killed == kills) {
                stop = true;
                return;
            }
            relay.kill();
            ++killed;
            cleanStarts = relay.start() && cleanStarts;
            nextKill.setRemainingTime(gapMs(random));
        });
    ASSERT_TRUE(cleanStarts) << relay.relay->standardError().constData();

    // What is left in the outbox goes out; then the relay stops for good.
    spinUntil([&] { return relay.queueLength() == 0 && exchanger.openSessions() == 0; }, 60000);
    EXPECT_TRUE(relay.relay->running()) << relay.relay->standardError().constData();
    relay.kill();
    // One more start, with nobody sending: it finds nothing half-written left behind, not even
    // the hidden file of a text that was being received when the relay was killed.
    ASSERT_TRUE(relay.start()) << relay.relay->standardError().constData();
    for (const char* name : {"OutBox", "Deferred", "Error"})
        EXPECT_TRUE(QDir(relay.folder + '/' + QLatin1String(name))
                        .entryList({QStringLiteral(".*.new")}, QDir::Files | QDir::Hidden)
                        .isEmpty())
            << name;
    relay.kill();

    std::map<QByteArray, int> delivered;
    for (int i = 0; i < exchanger.sessionCount(); ++i)
        for (const QByteArray& body : exchanger.session(i).bodies) // one connection carries several
            ++delivered[tagOf(body)];
    const std::multiset<QByteArray> queued = relay.queued();
    int acceptedCount = 0;
    int lost = 0;
    for (const auto& tags : senders) {
        for (const QByteArray& tag : tags) {
            ++acceptedCount;
            if (!delivered.contains(tag) && !queued.contains(tag)) {
                ++lost;
                ADD_FAILURE() << "lost: " << tag.constData();
            }
        }
    }
    int duplicates = 0;
    for (const auto& [tag, count] : delivered)
        duplicates += count - 1;
    std::cout << "crash test: kills survived " << killed << ", messages accepted " << acceptedCount
              << ", delivered " << delivered.size() << ", still queued " << queued.size() << ", lost " << lost
              << ", duplicates " << duplicates << std::endl;
    EXPECT_EQ(killed, kills);
    EXPECT_GT(acceptedCount, 0);
    EXPECT_EQ(lost, 0);
}
