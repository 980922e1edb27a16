#include <list>

#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {
QList<CMessage*> loadOutBox(SmtpBench& bench, std::list<CMessage>& messages)
{
    QList<CMessage*> loaded;
    for (const QString& file : bench.outBox()) {
        messages.emplace_back(bench.logs);
        messages.back().MLoad(bench.path("OutBox/" + file));
        loaded.append(&messages.back());
    }
    return loaded;
}
} // namespace

// Each client sends its envelope in one packet and its text, the dot and QUIT in another, all
// before reading a reply: every reply comes in order, and every message is stored as written.
TEST(Pipelining, TwentyClientsSendWholeTransactionsInTwoPacketsEach)
{
    constexpr int kClients = 20;
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    std::list<Client> clients;
    for (int i = 0; i < kClients; ++i)
        clients.emplace_back(bench.port);
    const auto text = [](int i) {
        return "Subject: pipelined " + QByteArray::number(i) + "\r\n\r\n..leading dot\r\n" + QByteArray(998, 'p')
            + "\r\n\xc3\xa9\xff\r\n";
    };
    int i = 0;
    for (Client& client : clients) {
        ASSERT_EQ(client.answer(), kGreeting);
        const QByteArray n = QByteArray::number(i++);
        client.socket.write("EHLO client" + n + "\r\nMAIL FROM:<a" + n
                            + "@x.com> SIZE=1100 BODY=8BITMIME\r\nRCPT TO:<b@y.org>\r\nRCPT TO:<c@z.org>\r\nDATA\r\n");
    }
    i = 0;
    for (Client& client : clients) {
        const QByteArray n = QByteArray::number(i++);
        play(client, {{"", "250-Hello client" + n},
                      {"", "250-PIPELINING"},
                      {"", "250-8BITMIME"},
                      {"", "250 SIZE 67108864"},
                      {"", "250 sender is <a" + n + "@x.com> sender ok"},
                      {"", "250 recipient is <b@y.org> recipient ok"},
                      {"", "250 recipient is <c@z.org> recipient ok"},
                      {"", kGoAhead}});
    }
    i = 0;
    for (Client& client : clients)
        client.socket.write(text(i++) + ".\r\nQUIT\r\n");
    for (Client& client : clients) {
        play(client, {{"", kAccepted}, {"", "221 Postiq Goodbye"}});
        EXPECT_TRUE(client.closed());
    }

    std::list<CMessage> messages;
    const QList<CMessage*> stored = loadOutBox(bench, messages);
    ASSERT_EQ(stored.size(), 2 * kClients); // two domains: a file for each
    for (const CMessage* message : stored) {
        const int sender = message->From.mid(2, message->From.indexOf('@') - 2).toInt();
        EXPECT_EQ(WithoutReceived(message->Data), Unstuffed(text(sender)));
        EXPECT_TRUE(message->Data.startsWith("Received: from client" + QByteArray::number(sender) + " ([127.0.0.1])"));
        EXPECT_TRUE(message->Data.contains(" (Postiq) with ESMTP id " + message->ID + ";\r\n\t"));
    }
}

// Ends of data split anywhere, commands glued behind them, bare line ends that never end a text,
// and a greeting too long to hold: each gets its clear reply.
TEST(Pipelining, HostileEndsOfDataAndLongCommandsGetClearReplies)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    Client client(bench.port);
    play(client, kEnvelope);
    play(client, {{"line\r", ""},
                  {"\n.", ""},
                  {"\r", ""},
                  {"\nMAIL FROM:<>\r\nRCPT TO:<b@y.org>\r\nDATA\r\n", kAccepted},
                  {"", "250 sender is <> sender ok"},
                  {"", "250 recipient is <b@y.org> recipient ok"},
                  {"", kGoAhead},
                  {"a\n.\nb\r.\rc\r\n.\n", ""},
                  {"\r\n.\r\nQUIT\r\n", kAccepted},
                  {"", "221 Postiq Goodbye"}});
    EXPECT_TRUE(client.closed());
    std::list<CMessage> messages;
    QList<QByteArray> stored;
    for (const CMessage* message : loadOutBox(bench, messages))
        stored.append(message->From + '|' + WithoutReceived(message->Data));
    std::sort(stored.begin(), stored.end());
    EXPECT_EQ(stored, (QList<QByteArray>{"<>|a\r\n.\r\nb\r\n.\r\nc\r\n.\r\n\r\n", "<a@x.com>|line\r\n"}));

    Client greedy(bench.port);
    EXPECT_EQ(greedy.answer(), kGreeting);
    EXPECT_EQ(greedy.answer("EHLO " + QByteArray(1024 * 1024, 'h') + "\r\n"), "500 Line too long");
    EXPECT_TRUE(greedy.closed());
    EXPECT_EQ(bench.mailLog("500 line too long, cut off").size(), 1);
}
