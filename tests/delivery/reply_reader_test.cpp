#include <QHostAddress>
#include <gtest/gtest.h>

#include "delivery/outbound_session.h"
#include "delivery/reply_reader.h"

using namespace postiq;

namespace {

QList<ServerReply> readAll(ReplyReader& reader)
{
    QList<ServerReply> replies;
    while (const std::optional<ServerReply> reply = reader.next())
        replies << *reply;
    return replies;
}

// A multi-line reply comes out whole however it is split, and several replies in one read come
// out in turn.
TEST(ReplyReader, WholeRepliesWhateverTheSplit)
{
    const QByteArray bytes = "250-mx.example\r\n250-SIZE 1000\r\n250-8BITMIME\r\n250-STARTTLS\r\n250 PIPELINING\r\n"
                             "250 2.1.0 Ok\r\n354\r\n";
    ReplyReader reader;
    QList<ServerReply> replies;
    for (char c : bytes) {
        reader.feed(QByteArray(1, c));
        replies += readAll(reader);
    }
    ASSERT_EQ(replies.size(), 3);
    EXPECT_EQ(replies[0].code, 250);
    EXPECT_EQ(replies[0].lines.size(), 5);
    EXPECT_EQ(replies[1].text(), "250 2.1.0 Ok");
    EXPECT_EQ(replies[2].code, 354) << "a bare code ends its reply";
    EXPECT_EQ(replies[2].replyClass(), 3);

    ReplyReader together;
    together.feed(bytes);
    EXPECT_EQ(readAll(together).size(), 3);
    EXPECT_FALSE(together.hasPartialReply());

    const Extensions offered = Extensions::fromEhloReply(replies[0]);
    EXPECT_TRUE(offered.size && offered.eightBitMime && offered.startTls && offered.pipelining);
    ReplyReader auth;
    auth.feed("250-x\r\n250-AUTH=LOGIN\r\n250 AUTH PLAIN CRAM-MD5\r\n");
    const Extensions login = Extensions::fromEhloReply(*auth.next());
    EXPECT_EQ(login.auth, (QList<QByteArray>{"LOGIN", "PLAIN", "CRAM-MD5"}));
    EXPECT_FALSE(login.startTls);
}

// What is no reply comes out as nonsense at once instead of stalling the session: garbage,
// codes that change inside a reply, a line without end, bare LF line ends are read as lines.
TEST(ReplyReader, NonsenseIsToldApart)
{
    ReplyReader reader;
    reader.feed("hello\n250-a\r\n251 b\r\n99 x\r\n600 big\r\n250 fine\n");
    const QList<ServerReply> replies = readAll(reader);
    ASSERT_EQ(replies.size(), 5);
    EXPECT_FALSE(replies[0].wellFormed());
    EXPECT_EQ(replies[0].replyClass(), 0);
    EXPECT_FALSE(replies[1].wellFormed()) << "250- then 251";
    EXPECT_FALSE(replies[2].wellFormed());
    EXPECT_FALSE(replies[3].wellFormed());
    EXPECT_EQ(replies[4].code, 250);

    ReplyReader endless;
    endless.feed(QByteArray(ReplyReader::kMaxLine + 10, 'x'));
    const std::optional<ServerReply> cut = endless.next();
    ASSERT_TRUE(cut);
    EXPECT_FALSE(cut->wellFormed());

    ReplyReader many;
    for (int i = 0; i < ReplyReader::kMaxLines + 5; ++i)
        many.feed("250-more\r\n");
    const std::optional<ServerReply> long_ = many.next();
    ASSERT_TRUE(long_);
    EXPECT_FALSE(long_->wellFormed());
}

TEST(OutboundCommands, GreetingNameAndPaths)
{
    EXPECT_EQ(OutboundSession::GreetingName("relay.example.org", QHostAddress("127.0.0.1")), "relay.example.org");
    EXPECT_EQ(OutboundSession::GreetingName("laptop", QHostAddress("192.0.2.7")), "[192.0.2.7]");
    EXPECT_EQ(OutboundSession::GreetingName("", QHostAddress("::ffff:10.0.0.1")), "[10.0.0.1]");
    EXPECT_EQ(OutboundSession::GreetingName("laptop", QHostAddress("2001:db8::1")), "[IPv6:2001:db8::1]");
    EXPECT_EQ(OutboundSession::PathText("<a@b.example>"), "<a@b.example>");
    EXPECT_EQ(OutboundSession::PathText("a@b.example"), "<a@b.example>");
    EXPECT_EQ(OutboundSession::PathText(""), "<>");
}

} // namespace
