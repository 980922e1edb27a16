#include <gtest/gtest.h>

#include "support/fake_exchanger.h"
#include "support/mail_client.h"

using namespace postiq::test;

TEST(FakeExchanger, RecordsTheDialogueAndTheUnstuffedBody)
{
    FakeExchanger exchanger;
    ASSERT_TRUE(exchanger.listen());
    Client client(exchanger.port());
    play(client, {{"", "220 mx.fake.example ESMTP ready"},
                  {"HELO me\r\n", "250 mx.fake.example"},
                  {"MAIL FROM: <a@x.com>\r\n", "250 2.1.0 Sender OK"},
                  {"RCPT TO: <b@y.org>\r\n", "250 2.1.5 Recipient OK"},
                  {"DATA\r\n", "354 Start mail input; end with <CRLF>.<CRLF>"},
                  {"Subject: s\r\n\r\n..one dot\r\nbare\n.\r\n", "250 2.0.0 Queued as FAKE"},
                  {"QUIT\r\n", "221 2.0.0 Bye"}});
    ASSERT_EQ(exchanger.sessionCount(), 1);
    const ExchangerSession& session = exchanger.session(0);
    EXPECT_EQ(session.commands,
              (QList<QByteArray>{"HELO me", "MAIL FROM: <a@x.com>", "RCPT TO: <b@y.org>", "DATA", "QUIT"}));
    EXPECT_EQ(session.body, "Subject: s\r\n\r\n.one dot\r\nbare\n");
    EXPECT_TRUE(session.dataEnded);
    EXPECT_EQ(session.lines.size(), 10);
    EXPECT_EQ(session.lines[7], "bare\n");
}

TEST(FakeExchanger, ALoneDotEndedByABareLineFeedEndsTheData)
{
    FakeExchanger exchanger;
    ASSERT_TRUE(exchanger.listen());
    Client client(exchanger.port());
    play(client, {{"", "220 mx.fake.example ESMTP ready"},
                  {"DATA\r\n", "354 Start mail input; end with <CRLF>.<CRLF>"},
                  {"text\n.\nrest\r\n", "250 2.0.0 Queued as FAKE"}});
    EXPECT_EQ(client.answer(), "500 5.5.2 Command not recognized"); // "rest" is a command again
    EXPECT_EQ(exchanger.session(0).body, "text\n");
}

TEST(FakeExchanger, FollowsItsScriptSessionBySession)
{
    ExchangerScript hangsUp; // a recipient refused for now, then the line drops; the greeting comes late
    hangsUp.greeting = reply("220 slow", 50);
    hangsUp.rcpt = {reply("250 first"), replyAndClose("450 4.2.0 try later")};
    ExchangerScript closes;
    closes.mail = closeInstead();
    ExchangerScript mute;
    mute.greeting = silent();

    FakeExchanger exchanger(hangsUp);
    exchanger.setScriptFor(1, closes);
    exchanger.setScriptFor(2, mute);
    ASSERT_TRUE(exchanger.listen());

    Client first(exchanger.port());
    play(first, {{"", "220 slow"},
                 {"MAIL FROM:<a@x.com>\r\n", "250 2.1.0 Sender OK"},
                 {"RCPT TO:<b@y.org>\r\n", "250 first"},
                 {"RCPT TO:<c@y.org>\r\n", "450 4.2.0 try later"}});
    EXPECT_TRUE(first.closed());

    Client second(exchanger.port());
    play(second, {{"", "220 mx.fake.example ESMTP ready"}, {"MAIL FROM:<a@x.com>\r\n", ""}});
    EXPECT_TRUE(second.closed());

    Client third(exchanger.port());
    play(third, {{"", ""}, {"HELO me\r\nMAIL FROM:<a@x.com>\r\nhalf", ""}});
    EXPECT_EQ(exchanger.openSessions(), 1);
    third.socket.disconnectFromHost();
    ASSERT_TRUE(spinUntil([&] { return exchanger.openSessions() == 0; }));
    EXPECT_EQ(exchanger.session(2).commands, (QList<QByteArray>{"HELO me", "MAIL FROM:<a@x.com>"}));
    EXPECT_EQ(exchanger.session(2).unfinished, "half");
    EXPECT_EQ(exchanger.sessionCount(), 3);
}
