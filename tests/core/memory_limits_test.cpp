#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <iostream>

#include "core/kept_local_relay.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/process_memory.h"
#include "support/thread_clients.h"

using namespace postiq::test;

namespace {

constexpr qint64 kMegabyte = 1024 * 1024;

constexpr bool kSizesMeaningful = !kSanitizerBuild;

struct MeasuredRelay : KeptLocalRelay {
    qint64 rss() const { return MemoryOf(relay->processId(), "VmRSS"); }
    qint64 peak() const { return MemoryOf(relay->processId(), "VmHWM"); }
};

// Envelope, then 1 MB of complete lines after another without the dot; the number of megabytes
// the relay took before it said no, and its reply.
std::pair<int, std::string> endlessMessage(uint16_t port)
{
    BlockingConnection connection(port, 20000);
    connection.readLine();
    for (const char* command : {"HELO box\r\n", "MAIL FROM:<a@x.com>\r\n", "RCPT TO:<b@y.org>\r\n", "DATA\r\n"}) {
        connection.send(command);
        connection.readLine();
    }
    std::string lines;
    while (lines.size() < size_t(kMegabyte))
        lines += std::string(998, 'm') + "\r\n";
    int sent = 0;
    while (sent < 1000 && connection.send(lines))
        ++sent;
    return {sent, connection.readUntilQuiet(2000)};
}

} // namespace

// One client sending an endless message is cut off at the message limit and the relay's memory
// stays within a small multiple of it; after a burst of large messages from every slot at once,
// it goes back near where it started.
TEST_F(MeasuredRelay, MemoryStaysBoundedAndReturnsAfterABurst)
{
    spinUntil([] { return false; }, 500);
    const qint64 idle = rss();
    ASSERT_GT(idle, 0);

    const auto [megabytes, reply] = runInParallel(1, [&](int) { return endlessMessage(port); },
                                                  [] { spinUntil([] { return false; }, 20); })[0];
    EXPECT_NE(reply.find("552 Message too big"), std::string::npos) << reply;
    EXPECT_LT(megabytes, 200);
    const qint64 endlessPeak = peak();

    const std::string large(4 * kMegabyte, 'b');
    std::string body;
    for (size_t i = 0; i < large.size(); i += 1000)
        body += large.substr(i, 998) + "\r\n";
    // Under the sanitizers every byte costs several times as much: a burst from every slot would
    // outlast the clients' patience, and its sizes say nothing there anyway.
    const int clients = kSizesMeaningful ? 99 : 20;
    const auto accepted = runInParallel(
        clients, [&](int i) { return sendOneMessage(port, "<a@x.com>", "<r" + std::to_string(i) + "@y.org>", body); },
        [] { spinUntil([] { return false; }, 20); });
    const qint64 burstPeak = peak();
    EXPECT_GT(std::count(accepted.begin(), accepted.end(), true), 0);
    spinUntil([&] { return rss() < idle + 32 * kMegabyte; }, kSizesMeaningful ? 10000 : 0);
    const qint64 after = rss();

    std::cout << "memory: idle " << idle / kMegabyte << " MB, peak under the endless message "
              << endlessPeak / kMegabyte << " MB (cut off after " << megabytes << " MB sent), peak in a burst of " << clients << " x 4 MB "
              << burstPeak / kMegabyte << " MB, after the burst " << after / kMegabyte << " MB" << std::endl;
    EXPECT_TRUE(relay->running());
    if (kSizesMeaningful) {
        EXPECT_LT(endlessPeak, idle + 4 * 64 * kMegabyte);
        EXPECT_LT(after, idle + 32 * kMegabyte);
    }
}
