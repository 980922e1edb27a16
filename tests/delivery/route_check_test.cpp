#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <memory>

#include "config/settings.h"
#include "config/smtp_password.h"
#include "delivery/outbound_session.h"
#include "delivery/route_check.h"
#include "platform/owner_only_file.h"
#include "platform/test_trust.h"
#include "real_exchanger.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/test_authority.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

const QByteArray kUser = "me@isp.test";
const QByteArray kPassword = "open sesame";

struct Certificates {
    TestAuthority trusted;
    TestAuthority rogue{QStringLiteral("Rogue Authority")};
    TestAuthority::Identity server = trusted.issue(QStringLiteral("IP:127.0.0.1"));
    TestAuthority::Identity otherName = trusted.issue(QStringLiteral("DNS:other.test"));
    TestAuthority::Identity untrusted = rogue.issue(QStringLiteral("IP:127.0.0.1"));
    TestAuthority::Identity expired = trusted.issue(QStringLiteral("IP:127.0.0.1"), -1);
};
const Certificates& certificates()
{
    static const Certificates made;
    return made;
}

// A provider's server on loop-back (aiosmtpd with TLS and a login, or a bare one that misbehaves),
// for as long as the object lives.
class Provider {
public:
    explicit Provider(const QString& mode = {}, const TestAuthority::Identity& identity = certificates().server)
        : port_(freeListenPort())
    {
        QStringList arguments{QStringLiteral(POSTIQ_DELIVERY_TESTS "/route_check_server.py"),
                              QStringLiteral("127.0.0.1"), QString::number(port_), identity.certificate,
                              identity.key, QString::fromUtf8(kUser), QString::fromUtf8(kPassword)};
        if (!mode.isEmpty())
            arguments << mode;
        ready_ = RealExchanger::startScript(process_, arguments);
    }
    ~Provider() { RealExchanger::stopScript(process_); }
    bool ready() const { return ready_; }
    quint16 port() const { return port_; }

private:
    quint16 port_;
    QProcess process_;
    bool ready_ = false;
};

SenderRoute routeTo(const QByteArray& scheme, quint16 port, const QString& name = QStringLiteral("work"))
{
    SenderRoute route;
    route.name = name;
    route.senders = {"*@work.example"};
    route.server = scheme + kUser + "@127.0.0.1:" + QByteArray::number(port);
    route.route = ParseServerRoute(route.server);
    return route;
}

struct Result {
    bool done = false;
    bool ok = false;
    QString report;
};

// A program folder with the route's password file, trusting the test authority.
class RouteCheckTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!RealExchanger::available())
            GTEST_SKIP() << "python3-aiosmtpd is not installed";
        ASSERT_TRUE(certificates().trusted.ok()) << "openssl could not make the test authority";
        qputenv(kTestCaFileVariable, certificates().trusted.caFile().toUtf8());
        ASSERT_TRUE(WriteOwnerOnlyFile(bench.path(RoutePasswordFile(QStringLiteral("work"))), kPassword + "\n"));
    }
    void TearDown() override { qunsetenv(kTestCaFileVariable); }

    std::unique_ptr<RouteCheck> make(const SenderRoute& route, Result& result,
                                     std::optional<OutboundTimeouts> timeouts = std::nullopt)
    {
        auto check = std::make_unique<RouteCheck>(bench.logs, settings, route);
        if (timeouts)
            check->setTimeouts(*timeouts);
        QObject::connect(check.get(), &RouteCheck::finished, [&result](bool ok, const QString& report) {
            EXPECT_FALSE(result.done) << "finished twice";
            result = {true, ok, report};
        });
        return check;
    }
    Result check(const SenderRoute& route, std::optional<OutboundTimeouts> timeouts = std::nullopt)
    {
        Result result;
        const auto check = make(route, result, timeouts);
        check->start();
        EXPECT_FALSE(result.done) << "finished from inside start()";
        EXPECT_TRUE(spinUntil([&] { return result.done; }, 20000));
        return result;
    }

    LogBench bench;
    Settings settings;
};

// STARTTLS on 587 and TLS from the first byte on 465, each with its login: every step named.
TEST_F(RouteCheckTest, GoodRoutesSayWhatWorked)
{
    Provider startTls;
    Provider implicit(QStringLiteral("--implicit"));
    ASSERT_TRUE(startTls.ready() && implicit.ready());

    const Result viaStartTls = check(routeTo("smtp://", startTls.port()));
    EXPECT_TRUE(viaStartTls.ok) << qPrintable(viaStartTls.report);
    EXPECT_EQ(viaStartTls.report,
              QStringLiteral("route work (127.0.0.1:%1): port %1 open, STARTTLS, TLSv1.3, certificate valid, "
                             "logged in as me@isp.test (AUTH PLAIN); everything works")
                  .arg(startTls.port()));

    const Result viaTls = check(routeTo("smtps://", implicit.port()));
    EXPECT_TRUE(viaTls.ok) << qPrintable(viaTls.report);
    EXPECT_TRUE(viaTls.report.contains(QStringLiteral("certificate valid, logged in as me@isp.test")))
        << qPrintable(viaTls.report);
    EXPECT_FALSE(viaTls.report.contains(QStringLiteral("STARTTLS")));
    // The check writes nothing of the password anywhere.
    EXPECT_FALSE(readFile(bench.path(QStringLiteral("maillog.txt"))).contains(kPassword));
}

// The login refused with the server's own words; a missing password is said as the relay says it.
TEST_F(RouteCheckTest, LoginFailuresNameTheReplyOrThePasswordFile)
{
    Provider provider;
    ASSERT_TRUE(provider.ready());
    ASSERT_TRUE(WriteOwnerOnlyFile(bench.path(RoutePasswordFile(QStringLiteral("work"))), "wrong\n"));
    const Result refused = check(routeTo("smtp://", provider.port()));
    EXPECT_FALSE(refused.ok);
    EXPECT_TRUE(refused.report.endsWith(QStringLiteral(
        "certificate valid; failed: login as me@isp.test refused: 535 5.7.8 Authentication credentials invalid")))
        << qPrintable(refused.report);

    const Result missing = check(routeTo("smtp://", provider.port(), QStringLiteral("home")));
    EXPECT_FALSE(missing.ok);
    EXPECT_TRUE(missing.report.contains(QStringLiteral("failed: no password: The password file ")
                                        + bench.path(QStringLiteral("smtp-password-home")) + QStringLiteral(" is missing")))
        << qPrintable(missing.report);
}

// Untrusted, for another name, expired, and no encryption offered at all: the connection stops there,
// before anything of the login.
TEST_F(RouteCheckTest, CertificateAndStartTlsProblems)
{
    Provider untrusted({}, certificates().untrusted);
    Provider otherName({}, certificates().otherName);
    Provider expired({}, certificates().expired);
    Provider clear(QStringLiteral("--no-starttls"));
    ASSERT_TRUE(untrusted.ready() && otherName.ready() && expired.ready() && clear.ready());

    const Result rogue = check(routeTo("smtp://", untrusted.port()));
    EXPECT_FALSE(rogue.ok);
    EXPECT_TRUE(rogue.report.endsWith(QStringLiteral("STARTTLS; failed: certificate not trusted (issued by Rogue Authority)")))
        << qPrintable(rogue.report);

    const Result wrongName = check(routeTo("smtp://", otherName.port()));
    EXPECT_FALSE(wrongName.ok);
    EXPECT_TRUE(wrongName.report.contains(QStringLiteral("failed: certificate is for other.test, not 127.0.0.1")))
        << qPrintable(wrongName.report);

    const Result old = check(routeTo("smtp://", expired.port()));
    EXPECT_FALSE(old.ok);
    EXPECT_TRUE(old.report.contains(QStringLiteral("failed: certificate expired on "))) << qPrintable(old.report);

    const Result plain = check(routeTo("smtp://", clear.port()));
    EXPECT_FALSE(plain.ok);
    EXPECT_TRUE(plain.report.contains(QStringLiteral("port %1 open; failed: no STARTTLS offered").arg(clear.port())))
        << qPrintable(plain.report);

    // smtps:// to a server that speaks plain text first: the handshake fails, said as such.
    const Result notTls = check(routeTo("smtps://", clear.port()));
    EXPECT_FALSE(notTls.ok);
    EXPECT_TRUE(notTls.report.contains(QStringLiteral("failed: TLS handshake failed"))) << qPrintable(notTls.report);
}

// A route to a plain server (host:port) has nothing to secure or log in to: its server answering
// is all there is. A server that greets with 421 refuses, with its words.
TEST_F(RouteCheckTest, PlainRouteAndBusyServer)
{
    Provider clear(QStringLiteral("--no-starttls"));
    Provider busy(QStringLiteral("--busy"));
    ASSERT_TRUE(clear.ready() && busy.ready());

    SenderRoute plain = routeTo("", clear.port());
    plain.server = "127.0.0.1:" + QByteArray::number(clear.port());
    plain.route = ParseServerRoute(plain.server);
    const Result answered = check(plain);
    EXPECT_TRUE(answered.ok) << qPrintable(answered.report);
    EXPECT_TRUE(answered.report.endsWith(QStringLiteral("open, EHLO answered (plain SMTP, no TLS, no login); everything works")))
        << qPrintable(answered.report);

    const Result refused = check(routeTo("smtp://", busy.port()));
    EXPECT_FALSE(refused.ok);
    EXPECT_TRUE(refused.report.endsWith(
        QStringLiteral("failed: the server refused the connection: 421 4.3.2 Too busy, come back later")))
        << qPrintable(refused.report);
}

// Nothing listens, a server that never speaks, one that hangs up, one that speaks garbage: each
// named, and every wait bounded by the limits.
TEST_F(RouteCheckTest, UnreachableSilentAndBrokenServers)
{
    const quint16 closed = freeListenPort();
    const Result refused = check(routeTo("smtp://", closed));
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.report, QStringLiteral("route work (127.0.0.1:%1): failed: port %1 refused the connection "
                                             "(nothing listens there)")
                                  .arg(closed));

    Provider silent(QStringLiteral("--silent"));
    Provider vanishing(QStringLiteral("--vanish"));
    Provider garbage(QStringLiteral("--garbage"));
    ASSERT_TRUE(silent.ready() && vanishing.ready() && garbage.ready());

    QElapsedTimer clock;
    clock.start();
    const Result mute = check(routeTo("smtp://", silent.port()), OutboundTimeouts{1s, 500ms});
    EXPECT_LT(clock.elapsed(), 3000);
    EXPECT_FALSE(mute.ok);
    EXPECT_TRUE(mute.report.endsWith(QStringLiteral("failed: no answer within 0.5 s while Postiq waited for the greeting")))
        << qPrintable(mute.report);

    const Result gone = check(routeTo("smtp://", vanishing.port()));
    EXPECT_FALSE(gone.ok);
    EXPECT_TRUE(gone.report.contains(QStringLiteral("the server closed the connection while Postiq waited for the greeting")))
        << qPrintable(gone.report);

    const Result nonsense = check(routeTo("smtp://", garbage.port()));
    EXPECT_FALSE(nonsense.ok);
    EXPECT_TRUE(nonsense.report.contains(QStringLiteral("failed: unexpected reply while Postiq waited for the greeting: ?")))
        << qPrintable(nonsense.report);

    // A silent server's TLS port: the handshake that never ends is bounded too.
    clock.restart();
    const Result handshake = check(routeTo("smtps://", silent.port()), OutboundTimeouts{1s, 500ms});
    EXPECT_LT(clock.elapsed(), 3000);
    EXPECT_TRUE(handshake.report.endsWith(QStringLiteral("while Postiq waited for the TLS handshake")))
        << qPrintable(handshake.report);
}

// A dozen checks at once against one server, and others against a closed port: each gets its own
// answer; a check dropped halfway says nothing and leaves nothing behind.
TEST_F(RouteCheckTest, ManyChecksAtOnce)
{
    Provider provider;
    Provider silent(QStringLiteral("--silent"));
    ASSERT_TRUE(provider.ready() && silent.ready());
    const quint16 closed = freeListenPort();

    constexpr int kGood = 12;
    constexpr int kRefused = 5;
    std::vector<Result> results(kGood + kRefused);
    std::vector<std::unique_ptr<RouteCheck>> checks;
    for (int i = 0; i < kGood + kRefused; ++i) {
        checks.push_back(make(routeTo("smtp://", i < kGood ? provider.port() : closed), results[size_t(i)]));
        checks.back()->start();
    }
    Result dropped;
    auto abandoned = make(routeTo("smtp://", silent.port()), dropped);
    abandoned->start();
    ASSERT_TRUE(spinUntil(
        [&] { return std::all_of(results.begin(), results.end(), [](const Result& r) { return r.done; }); }, 30000));
    abandoned.reset(); // still waiting for the greeting
    for (int i = 0; i < kGood + kRefused; ++i) {
        EXPECT_EQ(results[size_t(i)].ok, i < kGood) << qPrintable(results[size_t(i)].report);
    }
    spinUntil([] { return false; }, 200);
    EXPECT_FALSE(dropped.done);
}

// The real program: a good route, a wrong password, an unknown name and a faulty Routes.ini.
TEST_F(RouteCheckTest, CommandLine)
{
    Provider provider;
    ASSERT_TRUE(provider.ready());
    ASSERT_TRUE(WriteOwnerOnlyFile(bench.path(RoutePasswordFile(QStringLiteral("typo"))), "wrong\n"));
    const QByteArray server = "smtp://me@isp.test@127.0.0.1:" + QByteArray::number(provider.port());
    writeFile(bench.path(QStringLiteral("Routes.ini")),
              "[work]\nSenders = *@work.example\nServer = " + server + "\n\n[typo]\nServer = " + server
                  + "\n\n[broken]\nSenders = *@broken.example\n");

    const auto run = [&](const QStringList& arguments, QByteArray* out, QByteArray* err) {
        QProcess postiq;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QString::fromLatin1(kTestCaFileVariable), certificates().trusted.caFile());
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), bench.path(QStringLiteral("config")));
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
            environment.remove(QString::fromLatin1(name));
        postiq.setProcessEnvironment(environment);
        postiq.start(QStringLiteral(POSTIQ_BINARY), QStringList{"--folder", bench.dir.path()} + arguments);
        const bool ended = spinUntil([&] { return postiq.state() == QProcess::NotRunning; }, 30000);
        if (!ended) {
            postiq.kill();
            postiq.waitForFinished(1000);
            return -1;
        }
        *out = postiq.readAllStandardOutput();
        *err = postiq.readAllStandardError();
        return postiq.exitCode();
    };

    QByteArray out, err;
    EXPECT_EQ(run({"--check-route", "work"}, &out, &err), 0) << out.constData() << err.constData();
    EXPECT_TRUE(out.endsWith("logged in as me@isp.test (AUTH PLAIN); everything works\n")) << out.constData();
    // The faulty section is named whichever route is checked.
    EXPECT_TRUE(err.contains("route 'broken' has no Server; it is left out")) << err.constData();

    EXPECT_EQ(run({"--check-route=typo"}, &out, &err), 1) << out.constData() << err.constData();
    EXPECT_TRUE(out.contains("failed: login as me@isp.test refused: 535 5.7.8 Authentication credentials invalid"))
        << out.constData();

    EXPECT_EQ(run({"--check-route", "nope"}, &out, &err), 2) << out.constData() << err.constData();
    EXPECT_TRUE(out.isEmpty());
    EXPECT_TRUE(err.contains("postiq: no route 'nope' in " + bench.path(QStringLiteral("Routes.ini")).toUtf8()
                             + " (its routes: work, typo)"))
        << err.constData();

    // No name, or another command beside it: bad options, nothing tried.
    EXPECT_EQ(run({"--check-route"}, &out, &err), 2);
    EXPECT_TRUE(err.contains("--check-route needs a route name")) << err.constData();
    EXPECT_EQ(run({"--check-route", "work", "--queue"}, &out, &err), 2);
    EXPECT_TRUE(err.contains("cannot be used with another command")) << err.constData();
}

} // namespace
