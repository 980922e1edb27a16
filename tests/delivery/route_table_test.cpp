#include <gtest/gtest.h>

#include "delivery/route_table.h"

using namespace postiq;

namespace {

const QByteArray kTwoAccounts = R"(
; the user's accounts
[work]
Senders = *@work.example, me@work.example
Server = smtp://me@work.example@smtp.work.example:587
Fallback = home

[home]
Senders = <B@Home.Example>
Server = smtps://b%40home@mail.home.example
)";

TEST(RouteTable, TheFirstRouteWhosePatternMatchesTheSenderIsTaken)
{
    const RouteTable table = RouteTable::parse(kTwoAccounts);
    EXPECT_TRUE(table.errors().isEmpty()) << table.errors().join('\n').toStdString();
    ASSERT_EQ(table.routes().size(), 2);

    const SenderRoute* work = table.match("<someone@WORK.example>");
    ASSERT_NE(work, nullptr);
    EXPECT_EQ(work->name, "work");
    EXPECT_EQ(work->route.security, Security::StartTls);
    EXPECT_EQ(work->route.user, "me@work.example");
    EXPECT_EQ(work->route.host, "smtp.work.example");
    EXPECT_EQ(work->route.port, 587);

    const SenderRoute* home = table.match("b@home.example");
    ASSERT_NE(home, nullptr);
    EXPECT_EQ(home->route.security, Security::ImplicitTls);
    EXPECT_EQ(home->route.user, "b@home");
    EXPECT_EQ(home->route.port, 465);

    EXPECT_EQ(table.match("<c@home.example>"), nullptr);
    EXPECT_EQ(table.match("<me@work.example.org>"), nullptr);
    EXPECT_EQ(table.match("<>"), nullptr); // notices go their own way
    EXPECT_EQ(table.chain(*work), (QList<const SenderRoute*>{work, home}));
    EXPECT_EQ(table.chain(*home), (QList<const SenderRoute*>{home}));
}

TEST(RouteTable, PatternsMatchRunsOfAnyCharactersWhateverTheirNumberOfStars)
{
    EXPECT_TRUE(SenderPatternMatches("*", "a@b"));
    EXPECT_TRUE(SenderPatternMatches("a*@*.example", "alice@mail.example"));
    EXPECT_TRUE(SenderPatternMatches("**a**", "a"));
    EXPECT_FALSE(SenderPatternMatches("a*b", "a"));
    EXPECT_FALSE(SenderPatternMatches("*@x.org", "me@x.org.evil"));
    EXPECT_TRUE(SenderPatternMatches("*X.ORG", "me@x.org"));

    // Thousands of stars against a long address that does not match: answered at once.
    const QByteArray stars(1000, '*');
    EXPECT_FALSE(SenderPatternMatches(stars + "a" + stars + "b" + stars + "z", QByteArray(256, 'a') + "b"));
}

TEST(RouteTable, AHostileFileCostsOnlyItsFaultyRoutes)
{
    const QByteArray text = "Server = orphan.example\n"
                            "[no-server]\nSenders = *@a.example\n"
                            "[bad name!]\nServer = x.example\n"
                            "[stars]\nSenders = " + QByteArray(10000, '*') + ", *@s.example\nServer = s.example\n"
                            "[a]\nSenders = *@a.example\nServer = a.example\nFallback = b\nColour = red\n"
                            "[b]\nServer = b.example\nFallback = c\n"
                            "[c]\nServer = c.example\nFallback = a\n"
                            "[d]\nSenders = *@d.example\nServer = d.example\nFallback = nowhere\n"
                            "[A]\nServer = twice.example\n"
                            "garbage line\n";
    const RouteTable table = RouteTable::parse(text);
    QStringList names;
    for (const SenderRoute& route : table.routes())
        names << route.name;
    EXPECT_EQ(names, QStringList({"stars", "a", "b", "c", "d"}));
    const QString errors = table.errors().join('\n');
    for (const char* expected : {"line 1:", "route 'no-server' has no Server", "is not a route name", "longer than",
                                 "unknown key 'colour'", "'nowhere', which is not a route", "loop back",
                                 "defined twice", "expected '[name]'"})
        EXPECT_TRUE(errors.contains(QLatin1String(expected))) << expected << "\n" << errors.toStdString();

    // The loop is broken once, and every chain stays finite.
    EXPECT_EQ(table.find("a")->fallback, "");
    EXPECT_EQ(table.chain(*table.find("b")).size(), 3);
    EXPECT_EQ(table.find("d")->fallback, "");
    EXPECT_EQ(table.match("<x@s.example>")->name, "stars");
    EXPECT_EQ(table.match("<x@a.example>")->name, "a");
}

} // namespace

TEST(RouteTable, NullSenderTakesTheRouteOfItsRecipientAndFormatReadsBack)
{
    const RouteTable table = RouteTable::parse("[work]\nSenders = *@work.example\nServer = smtps://me@work.example@smtp.work.example\n"
                                               "Fallback = home\n[home]\nSenders = b@home.example\nServer = smtp.home.example:2525\n");
    ASSERT_EQ(table.errors(), QStringList());
    EXPECT_EQ(table.forMessage("<a@work.example>", "<x@else.example>")->name, "work");
    EXPECT_EQ(table.forMessage("<>", "<B@Home.example>")->name, "home");
    EXPECT_EQ(table.forMessage("", "<x@else.example>"), nullptr);
    EXPECT_EQ(table.forMessage("<x@else.example>", "<b@home.example>"), nullptr);

    const RouteTable again = RouteTable::parse(RouteTable::format(table.routes()));
    ASSERT_EQ(again.errors(), QStringList());
    ASSERT_EQ(again.routes().size(), 2);
    EXPECT_EQ(again.routes()[0].server, table.routes()[0].server);
    EXPECT_EQ(again.routes()[0].fallback, "home");
    EXPECT_EQ(again.routes()[1].senders, table.routes()[1].senders);
}
