// Routes by sender through the dispatcher: two providers started here (aiosmtpd with STARTTLS and
// a login each), the test's exchanger for everybody else, a fallback, a refused login, a
// provider that hangs up or answers slowly, and a reload while a delivery is under way.
#include <QSet>
#include <memory>

#include "delivery/route_table.h"
#include "delivery_bench.h"
#include "platform/owner_only_file.h"
#include "platform/test_trust.h"
#include "real_exchanger.h"
#include "support/fake_exchanger.h"
#include "support/test_authority.h"

using namespace postiq;
using namespace postiq::test;

namespace {

#define SKIP_WITHOUT_AIOSMTPD()                                                                                   \
    if (!RealExchanger::available())                                                                             \
    GTEST_SKIP() << "python3-aiosmtpd is not installed"

struct Certificates {
    TestAuthority authority;
    TestAuthority::Identity work = authority.issue(QStringLiteral("IP:127.0.0.3"));
    TestAuthority::Identity home = authority.issue(QStringLiteral("IP:127.0.0.4"));
};
const Certificates& certificates()
{
    static const Certificates made;
    return made;
}

QByteArray number(int n) { return QByteArray::number(n); }

// The relay's delivery side with a table of routes, the passwords of "work" and "home" in their
// files, and the test authority trusted.
struct RouteBench : DeliveryBench {
    RouteTable table;
    quint16 workPort = freeListenPort();
    quint16 homePort = freeListenPort();

    RouteBench()
    {
        EXPECT_TRUE(certificates().authority.ok()) << "openssl could not make the test authority";
        qputenv(kTestCaFileVariable, certificates().authority.caFile().toUtf8());
        settings.ActiveSettings.DebugMode = true;
        dispatcher.setRoutes(&table);
        password("work", "work secret");
        password("home", "home secret");
    }
    ~RouteBench() { qunsetenv(kTestCaFileVariable); }

    void password(const char* route, const QByteArray& secret)
    {
        EXPECT_TRUE(WriteOwnerOnlyFile(path(QStringLiteral("smtp-password-") + QLatin1String(route)), secret + "\n"));
    }
    // The provider of "work" (a@work.example) or "home" (b@home.example), STARTTLS and login required.
    std::unique_ptr<RealExchanger> provider(bool work, const QStringList& more = {})
    {
        const TestAuthority::Identity& identity = work ? certificates().work : certificates().home;
        return std::make_unique<RealExchanger>(
            work ? QStringLiteral("127.0.0.3") : QStringLiteral("127.0.0.4"), work ? workPort : homePort,
            QStringList{QStringLiteral("--tls"), identity.certificate, identity.key, QStringLiteral("--auth"),
                        work ? QStringLiteral("a@work.example") : QStringLiteral("b@home.example"),
                        work ? QStringLiteral("work secret") : QStringLiteral("home secret")}
                + more);
    }
    QByteArray workServer() const { return "smtp://a@work.example@127.0.0.3:" + number(workPort); }
    QByteArray homeServer() const { return "smtp://b@home.example@127.0.0.4:" + number(homePort); }
    void routes(const QByteArray& text)
    {
        table = RouteTable::parse(text);
        EXPECT_TRUE(table.errors().isEmpty()) << table.errors().join('\n').toStdString();
    }
    void send(const QByteArray& id, const QByteArray& from, bool notice = false)
    {
        queue(id, {"<x@dst.test>"}, "Subject: " + id + "\r\n\r\nhi\r\n", 0, notice, "OutBox", from);
    }
    // Dispatches until OutBox is empty and no slot is busy.
    bool drain(int milliseconds = 20000)
    {
        dispatcher.VerifOutBox();
        return spinUntil([this] { return idle() && files("OutBox").isEmpty(); }, milliseconds);
    }
    QByteArray log() const { return readFile(path(QStringLiteral("maillog.txt"))); }
};

// Each account's mail leaves through its own provider with its own login, over one connection
// per route; the sender that no route names goes by MX, with the lines it has always had.
TEST(Routes, EachSenderLeavesThroughItsOwnProvider)
{
    SKIP_WITHOUT_AIOSMTPD();
    RouteBench b;
    const auto work = b.provider(true);
    const auto home = b.provider(false);
    RealExchanger mx(QStringLiteral("127.0.0.2"), 25);
    ASSERT_TRUE(work->ready() && home->ready() && mx.ready());
    b.mx("dst.test", {{10, "127.0.0.2"}});
    b.routes("[work]\nSenders = *@work.example\nServer = " + b.workServer() + "\n\n[home]\nSenders = b@home.example\n"
             "Server = " + b.homeServer() + "\n");
    for (int i = 0; i < 10; ++i) {
        b.send("W" + number(i), "<a@work.example>");
        b.send("H" + number(i), "<B@Home.Example>");
    }
    b.send("M", "<c@else.example>");
    ASSERT_TRUE(b.drain()) << b.log().constData();
    ASSERT_TRUE(spinUntil([&] { return work->messages().size() == 10 && home->messages().size() == 10; }))
        << b.log().constData() << b.errorLog().constData();

    for (const auto& [provider, from, login] : {std::tuple{work.get(), "a@work.example", "a@work.example"},
                                                std::tuple{home.get(), "B@Home.Example", "b@home.example"}}) {
        QSet<QByteArray> connections;
        for (const SavedMessage& message : provider->messages()) {
            EXPECT_EQ(message.from, from);
            EXPECT_EQ(message.login, login);
            EXPECT_TRUE(message.encrypted);
            connections.insert(message.peer);
        }
        EXPECT_EQ(connections.size(), 1) << "one route's messages share its connection";
    }
    ASSERT_EQ(mx.messages().size(), 1);
    EXPECT_EQ(mx.messages()[0].from, "c@else.example");
    EXPECT_TRUE(mx.messages()[0].login.isEmpty());

    for (const QByteArray& line : b.mailLog(" W3 "))
        EXPECT_TRUE(line.contains(" W3 route=work ")) << line.constData();
    EXPECT_EQ(b.mailLog(" H3 route=home to=").size(), 1);
    EXPECT_EQ(b.mailLog(" M to=").size(), 1);
    EXPECT_TRUE(b.mailLog("route=").size() > 20 && b.mailLog(" M route=").isEmpty());
    EXPECT_TRUE(b.files("Deferred").isEmpty() && b.files("Error").isEmpty());
    EXPECT_FALSE(b.log().contains("secret"));
}

// A route whose server is down hands the message to its fallback at once, within the same
// attempt, with a line that says so; with both down the message waits in Deferred as usual.
TEST(Routes, FallbackTakesOverAtOnceAndBothDownDefer)
{
    SKIP_WITHOUT_AIOSMTPD();
    RouteBench b;
    auto home = b.provider(false);
    ASSERT_TRUE(home->ready());
    const QByteArray dead = "smtp://a@work.example@" + kDeadHost + ":" + number(b.workPort);
    b.routes("[work]\nSenders = *@work.example\nServer = " + dead + "\nFallback = home\n\n[home]\n"
             "Senders = b@home.example\nServer = " + b.homeServer() + "\n");
    b.send("F1", "<a@work.example>");
    ASSERT_TRUE(b.drain()) << b.log().constData();
    ASSERT_TRUE(spinUntil([&] { return home->messages().size() == 1; })) << b.log().constData();
    EXPECT_EQ(home->messages()[0].from, "a@work.example");
    EXPECT_EQ(home->messages()[0].login, "b@home.example") << "the fallback's server, the fallback's login";
    const QList<QByteArray> fallback = b.mailLog(" F1 route=work connection failed (");
    ASSERT_EQ(fallback.size(), 1) << b.log().constData();
    EXPECT_TRUE(fallback[0].endsWith("for " + kDeadHost + ":" + number(b.workPort) + " [" + kDeadHost
                                     + "], status=route work could not be reached, trying route home, attempt=1"))
        << fallback[0].constData();
    EXPECT_EQ(b.mailLog(" F1 route=home to=<x@dst.test>").size() + b.mailLog(" F1 route=home to=x@dst.test").size(), 1);
    EXPECT_TRUE(b.files("Deferred").isEmpty());

    home.reset(); // both down now
    b.send("F2", "<a@work.example>");
    ASSERT_TRUE(b.drain()) << b.log().constData();
    // The message waits, and so does its delay notice, which goes the route of its recipient.
    EXPECT_TRUE(b.files("Deferred").contains(QStringLiteral("F2"))) << b.log().constData();
    EXPECT_EQ(b.files("Deferred").size(), 2);
    EXPECT_TRUE(b.read(QStringLiteral("Deferred/F2")).LastError.startsWith("10061")) << b.read("Deferred/F2").LastError.constData();
    EXPECT_EQ(b.mailLog(" F2 route=work connection failed (").size(), 1);
    EXPECT_EQ(b.mailLog(" F2 route=home connection failed (").size(), 1);
    EXPECT_TRUE(b.mailLog(" F2 route=home connection failed (")[0].endsWith("status=deferred, attempt=1"));
}

// A 4xx greeting is a server out of reach for now: the fallback takes the message. A 5xx
// greeting is an answer: the message is refused there and then, never sent elsewhere.
TEST(Routes, TheGreetingDecidesWhetherTheFallbackIsTried)
{
    RouteBench b;
    ExchangerScript busy;
    busy.greeting = replyAndClose("421 4.3.2 Too busy");
    FakeExchanger first(busy);
    FakeExchanger second;
    ASSERT_TRUE(first.listen(QHostAddress(QStringLiteral("127.0.0.5"))));
    ASSERT_TRUE(second.listen(QHostAddress(QStringLiteral("127.0.0.6"))));
    b.routes("[first]\nSenders = *@work.example\nServer = 127.0.0.5:" + number(first.port()) + "\nFallback = second\n\n"
             "[second]\nSenders = nobody@else.example\nServer = 127.0.0.6:" + number(second.port()) + "\n");
    b.send("G1", "<a@work.example>", true);
    ASSERT_TRUE(b.drain()) << b.log().constData();
    ASSERT_EQ(second.sessionCount(), 1) << b.log().constData();
    EXPECT_TRUE(second.session(0).dataEnded);
    EXPECT_EQ(b.mailLog("status=route first could not be reached, trying route second, attempt=1").size(), 1);

    ExchangerScript refusing;
    refusing.greeting = replyAndClose("554 5.7.1 Go away");
    first.setScript(refusing);
    b.send("G2", "<a@work.example>", true);
    ASSERT_TRUE(b.drain()) << b.log().constData();
    EXPECT_EQ(second.sessionCount(), 1) << "a refusal is never sent elsewhere";
    EXPECT_EQ(b.files("Error"), QStringList{"G2"});
    EXPECT_EQ(b.mailLog(" G2 route=first Error 554 (554 5.7.1 Go away), error for=<x@dst.test>").size(), 1)
        << b.log().constData();
}

// A wrong password is the server's answer: each message goes to Error with the 535 at its first
// attempt, as on the SmtpServer route; its fallback is not tried, the provider saw one login per
// message, and nothing is tried again afterwards.
TEST(Routes, RefusedLoginGoesToErrorWithoutFallbackOrStorm)
{
    SKIP_WITHOUT_AIOSMTPD();
    RouteBench b;
    const auto work = b.provider(true);
    const auto home = b.provider(false);
    ASSERT_TRUE(work->ready() && home->ready());
    b.password("work", "not the secret");
    b.routes("[work]\nSenders = *@work.example\nServer = " + b.workServer() + "\nFallback = home\n\n[home]\n"
             "Senders = b@home.example\nServer = " + b.homeServer() + "\n");
    // Notices themselves, so that no bounce joins in.
    for (const char* id : {"L1", "L2", "L3", "L4"})
        b.send(id, "<a@work.example>", true);
    ASSERT_TRUE(b.drain()) << b.log().constData();
    b.dispatcher.VerifOutBox(); // a further scan, and time for a storm, if there were one
    spinUntil([] { return false; }, 1500);
    ASSERT_TRUE(b.settle()) << b.log().constData();

    EXPECT_EQ(b.files("Error"), (QStringList{"L1", "L2", "L3", "L4"}));
    EXPECT_TRUE(b.files("Deferred").isEmpty() && b.files("OutBox").isEmpty());
    for (const char* id : {"L1", "L2", "L3", "L4"}) {
        EXPECT_EQ(b.read(QStringLiteral("Error/") + QLatin1String(id)).LastError,
                  "30003: 535 5.7.8 Authentication credentials invalid") << id;
        EXPECT_EQ(b.mailLog(" " + QByteArray(id) + " route=work connection failed (authentication failed)").size(), 1)
            << id;
    }
    EXPECT_EQ(work->logins(), QList<QByteArray>(4, "bad a@work.example")) << "one login per message";
    EXPECT_TRUE(work->messages().isEmpty());
    EXPECT_TRUE(home->logins().isEmpty() && home->messages().isEmpty());
    EXPECT_FALSE(b.log().contains("trying route")) << b.log().constData();
    EXPECT_TRUE(b.mailLog(" L1 route=work connection failed (authentication failed)")[0].endsWith(
        "status=error, not return error because it's already a return-error-mail: deny loop"));
}

// A provider that hangs up in the middle of a session costs that message one attempt and nothing
// else; a slow one is waited for. A reload during a delivery leaves that delivery on its route,
// while the next message takes the new table (here: no route, so MX).
TEST(Routes, CutAndSlowProvidersAndAReloadUnderWay)
{
    SKIP_WITHOUT_AIOSMTPD();
    RouteBench b;
    const auto work = b.provider(true, {QStringLiteral("--hangup"), QStringLiteral("1"), QStringLiteral("--slow"),
                                        QStringLiteral("1")});
    RealExchanger mx(QStringLiteral("127.0.0.2"), 25);
    ASSERT_TRUE(work->ready() && mx.ready());
    b.mx("dst.test", {{10, "127.0.0.2"}});
    b.routes("[work]\nSenders = *@work.example\nServer = " + b.workServer() + "\n");

    b.send("C1", "<a@work.example>", true);
    ASSERT_TRUE(b.drain()) << b.log().constData();
    EXPECT_EQ(b.files("Deferred"), QStringList{"C1"});
    EXPECT_TRUE(b.read(QStringLiteral("Deferred/C1")).LastError.startsWith("10054")) << b.read("Deferred/C1").LastError.constData();

    b.send("C2", "<a@work.example>");
    b.dispatcher.VerifOutBox();
    b.table = RouteTable(); // the reload: Routes.ini emptied
    b.send("C3", "<a@work.example>");
    ASSERT_TRUE(b.drain()) << b.log().constData();
    ASSERT_TRUE(spinUntil([&] { return work->messages().size() == 1 && mx.messages().size() == 1; }))
        << b.log().constData();
    EXPECT_TRUE(work->messages()[0].content.contains("Subject: C2"));
    EXPECT_TRUE(mx.messages()[0].content.contains("Subject: C3"));
    EXPECT_EQ(b.mailLog(" C3 route=").size(), 0);
    EXPECT_EQ(b.files("Deferred"), QStringList{"C1"});
}

} // namespace
