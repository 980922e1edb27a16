#include <QSslSocket>

#include "delivery/server_route.h"
#include "delivery_bench.h"
#include "platform/owner_only_file.h"
#include "platform/test_trust.h"
#include "support/fake_submission_server.h"
#include "support/memory_keyring.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// The suite's certificates, made once: the trusted authority's server certificate for the
// loop-back address, one of its certificates for another name, and one from an authority nobody
// trusts.
struct Certificates {
    TestAuthority trusted;
    TestAuthority rogue{QStringLiteral("Rogue Authority")};
    TestAuthority::Identity server = trusted.issue(QStringLiteral("IP:127.0.0.1,DNS:submission.test"));
    TestAuthority::Identity otherName = trusted.issue(QStringLiteral("DNS:other.test"));
    TestAuthority::Identity untrusted = rogue.issue(QStringLiteral("IP:127.0.0.1,DNS:submission.test"));
};
const Certificates& certificates()
{
    static const Certificates made;
    return made;
}

const QByteArray kPassword = "open sesame";

// A relay whose fixed server is a submission server of the test, trusting the test authority.
struct SubmissionBench : DeliveryBench {
    FakeSubmissionServer server;

    explicit SubmissionBench(const SubmissionScript& script = {},
                             const TestAuthority::Identity& identity = certificates().server)
        : server(identity, script)
    {
        EXPECT_TRUE(certificates().trusted.ok()) << "openssl could not make the test authority";
        qputenv(kTestCaFileVariable, certificates().trusted.caFile().toUtf8());
        settings.ActiveSettings.DebugMode = true;
        EXPECT_TRUE(server.listen());
        EXPECT_TRUE(WriteOwnerOnlyFile(path(QStringLiteral("smtp-password")), kPassword + "\n"));
    }
    ~SubmissionBench() { qunsetenv(kTestCaFileVariable); }

    QByteArray hostPort() const { return "127.0.0.1:" + QByteArray::number(server.serverPort()); }
    void route(const char* scheme, const QByteArray& user = "me@isp.test")
    {
        useServer(QString::fromUtf8(scheme + (user.isEmpty() ? "" : user + '@') + hostPort()));
    }
    // A failing delivery is sent with the null sender, so that no delay notice joins in.
    void deliver(const QByteArray& id, const QByteArray& from = "<s@src.test>")
    {
        queue(id, {"<a@dst.test>"}, "Subject: t\r\n\r\nhi\r\n", 0, false, "OutBox", from);
        dispatcher.VerifOutBox();
        EXPECT_TRUE(spinUntil([this] { return idle() && server.openSessions() == 0; }, 10000)) << id.constData();
    }
    // Every byte the relay wrote about this delivery.
    QByteArray allLogsAndQueues() const
    {
        QByteArray all = readFile(path(QStringLiteral("maillog.txt"))) + errorLog()
            + readFile(path(QStringLiteral("Debug.html")));
        for (const char* folder : {"OutBox", "Deferred", "Error"})
            for (const QString& file : files(folder))
                all += readFile(path(QString::fromLatin1(folder) + '/' + file));
        return all;
    }
    // The mail-log line of a failed submission: the message waits for another attempt.
    QByteArray failureLine(const QByteArray& reason, const QByteArray& ip = "127.0.0.1") const
    {
        return "connection failed (" + reason + ") for " + hostPort() + " [" + ip + "], status=deferred, attempt=1";
    }
};

QByteArray plainCredentials(const QByteArray& user, const QByteArray& password)
{
    return ('\0' + user + '\0' + password).toBase64();
}

TEST(ServerRoute, PlainAndSubmissionForms)
{
    struct Case {
        QByteArray text;
        Security security;
        QByteArray user;
        QString host;
        quint16 port;
    };
    const QList<Case> cases = {
        {"mail.isp.test", Security::Plain, "", "mail.isp.test", 25},
        {"mail.isp.test:2525", Security::Plain, "", "mail.isp.test", 2525},
        {"[::1]:26", Security::Plain, "", "::1", 26},
        {"mail.isp.test:0", Security::Plain, "", "mail.isp.test:0", 25}, // not a port: all host
        {"smtp://mail.isp.test", Security::StartTls, "", "mail.isp.test", 587},
        {"SMTP://bob@mail.isp.test:2587/", Security::StartTls, "bob", "mail.isp.test", 2587},
        {"smtps://mail.isp.test", Security::ImplicitTls, "", "mail.isp.test", 465},
        {"smtps://me@isp.test@[::1]:4650", Security::ImplicitTls, "me@isp.test", "::1", 4650},
        {"smtps://me%40isp.test@mail.isp.test", Security::ImplicitTls, "me@isp.test", "mail.isp.test", 465},
    };
    for (const Case& c : cases) {
        const ServerRoute route = ParseServerRoute(c.text);
        EXPECT_EQ(int(route.security), int(c.security)) << c.text.constData();
        EXPECT_EQ(route.user, c.user) << c.text.constData();
        EXPECT_EQ(route.host, c.host) << c.text.constData();
        EXPECT_EQ(route.port, c.port) << c.text.constData();
    }
    EXPECT_EQ(ParseServerRoute("smtps://me@[::1]").hostAndPort(), "[::1]:465");
}

// A mail program's message reaches the provider byte for byte over STARTTLS with AUTH PLAIN, and
// nothing of the login or the mail goes out before TLS is up.
TEST(Submission, StartTlsWithAuthPlainFromAMailProgram)
{
    SubmissionBench b;
    ASSERT_TRUE(b.listen());
    b.route("smtp://");
    const QByteArray content = "From: a@x.com\r\nSubject: provider\r\n\r\n..leading dot\r\n\x80\xff bytes\r\n";
    Client client(b.port);
    play(client, {{"", kGreeting},
                  {"HELO box\r\n", "250 Hello box"},
                  {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@dst.test>\r\n", "250 recipient is <b@dst.test> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {content + ".\r\n", kAccepted}});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.server.sessionCount() == 1 && b.idle() && b.server.openSessions() == 0; }, 10000));

    const SubmissionSession& s = b.server.session(0);
    EXPECT_EQ(s.commands, (QList<QByteArray>{"EHLO relay.test", "STARTTLS", "EHLO relay.test",
                                             "AUTH PLAIN " + plainCredentials("me@isp.test", kPassword),
                                             "MAIL FROM:<a@x.com> BODY=8BITMIME",
                                             "RCPT TO:<b@dst.test>", "DATA", "QUIT"}));
    EXPECT_EQ(s.commandsBeforeTls, 2);
    EXPECT_EQ(WithoutReceived(s.body), Unstuffed(content));
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    const QList<QByteArray> lines = b.mailLog("smtpdistant");
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines[0].endsWith(" connect to " + b.hostPort() + " [127.0.0.1]")) << lines[0].constData();
    EXPECT_TRUE(lines[1].contains(" TLS TLSv1.")) << lines[1].constData();
    EXPECT_TRUE(lines[2].endsWith(" to=<b@dst.test>, relay=" + b.hostPort()
                                  + "[127.0.0.1], status=sent (250 2.0.0 Queued as SUB)")) << lines[1].constData();
    const QByteArray logs = b.allLogsAndQueues();
    EXPECT_TRUE(logs.contains("AUTH PLAIN ****"));
    EXPECT_FALSE(logs.contains(kPassword));
    EXPECT_FALSE(logs.contains(plainCredentials("me@isp.test", kPassword)));
}

// TLS from the first byte; a server that offers only AUTH LOGIN gets the user and the password
// one after the other.
TEST(Submission, ImplicitTlsWithAuthLogin)
{
    SubmissionScript script;
    script.mode = SubmissionScript::ImplicitTls;
    script.mechanisms = "LOGIN";
    SubmissionBench b(script);
    b.route("smtps://");
    b.deliver("IMPL");

    ASSERT_EQ(b.server.sessionCount(), 1);
    const SubmissionSession& s = b.server.session(0);
    EXPECT_EQ(s.commands, (QList<QByteArray>{"EHLO relay.test", "AUTH LOGIN", QByteArray("me@isp.test").toBase64(),
                                             kPassword.toBase64(), "MAIL FROM:<s@src.test>", "RCPT TO:<a@dst.test>",
                                             "DATA", "QUIT"}));
    EXPECT_EQ(s.commandsBeforeTls, 0);
    EXPECT_TRUE(s.dataEnded);
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    EXPECT_FALSE(b.allLogsAndQueues().contains(kPassword.toBase64()));
}

// Two messages through the provider: one connection, one TLS handshake and one login, then each
// message in its own transaction after RSET.
TEST(Submission, OneLoginForSeveralMessages)
{
    SubmissionBench b;
    b.route("smtp://");
    b.queue("TWO1", {"<a@dst.test>"});
    b.queue("TWO2", {"<b@dst.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.server.openSessions() == 0 && b.files("OutBox").isEmpty(); },
                          10000));

    ASSERT_EQ(b.server.sessionCount(), 1);
    const QList<QByteArray>& commands = b.server.session(0).commands;
    EXPECT_EQ(commands.count("STARTTLS"), 1);
    EXPECT_EQ(std::count_if(commands.begin(), commands.end(), [](const QByteArray& c) { return c.startsWith("AUTH"); }),
              1);
    EXPECT_EQ(commands.count("RSET"), 1);
    EXPECT_EQ(commands.count("DATA"), 2);
    EXPECT_EQ(b.mailLog("status=sent (250 2.0.0 Queued as SUB)").size(), 2);
    EXPECT_EQ(b.mailLog(" reusing connection to " + b.hostPort() + " [127.0.0.1]").size(), 1);
}

// A login refused with a 5xx is an answer: the message goes to Error with the server's reply at
// the first attempt and is not tried again. A login refused for now (454), and a STARTTLS that is
// missing or refused, fail the connection: the message waits in Deferred with its reason, and the
// mail is never sent in clear.
TEST(Submission, RefusedLoginToErrorOtherFailuresDefer)
{
    SubmissionBench b;
    b.route("smtp://");
    SubmissionScript wrong;
    wrong.password = "another one";
    b.server.setScript(wrong);
    b.deliver("WRONG", "<>");
    SubmissionScript busy = wrong;
    busy.loginRefusal = "454 4.7.0 Temporary authentication failure";
    b.server.setScript(busy);
    b.deliver("BUSY", "<>");
    SubmissionScript noStartTls;
    noStartTls.offerStartTls = false;
    b.server.setScript(noStartTls);
    b.deliver("NOTLS", "<>");
    SubmissionScript refused;
    refused.startTlsReply = "454 4.7.0 TLS not available";
    b.server.setScript(refused);
    b.deliver("REFUSED", "<>");

    ASSERT_EQ(b.server.sessionCount(), 4) << readFile(b.path("maillog.txt")).constData();
    EXPECT_EQ(b.server.session(0).commands.size(), 4) << "no MAIL after the 535";
    EXPECT_EQ(b.server.session(2).commands, QList<QByteArray>{"EHLO relay.test"});
    EXPECT_EQ(b.server.session(3).commands, (QList<QByteArray>{"EHLO relay.test", "STARTTLS"}));
    EXPECT_EQ(b.files("Error"), QStringList{"WRONG"});
    EXPECT_EQ(b.files("Deferred"), (QStringList{"BUSY", "NOTLS", "REFUSED"}));
    EXPECT_TRUE(b.files("OutBox").isEmpty()) << "no notice for the null sender";
    EXPECT_EQ(b.read("Error/WRONG").LastError, "30003: 535 5.7.8 Authentication credentials invalid");
    EXPECT_EQ(b.read("Deferred/BUSY").LastError, "30003: 454 4.7.0 Temporary authentication failure");
    EXPECT_TRUE(b.read("Deferred/NOTLS").LastError.startsWith("30002: STARTTLS not offered"));
    EXPECT_EQ(b.read("Deferred/REFUSED").LastError, "30002: 454 4.7.0 TLS not available");
    const QList<QByteArray> wrongLines = b.mailLog(" WRONG connection failed");
    ASSERT_EQ(wrongLines.size(), 1);
    EXPECT_TRUE(wrongLines[0].endsWith("connection failed (authentication failed) for " + b.hostPort()
                                       + " [127.0.0.1], status=error, not return error because its sender is <>: "
                                         "deny loop")) << wrongLines[0].constData();
    for (const QByteArray id : {"BUSY", "NOTLS", "REFUSED"}) {
        const QList<QByteArray> lines = b.mailLog(" " + id + " connection failed");
        ASSERT_EQ(lines.size(), 1) << id.constData();
        EXPECT_TRUE(lines[0].endsWith(
            b.failureLine(id == "BUSY" ? "authentication failed" : "no STARTTLS"))) << lines[0].constData();
    }
    EXPECT_FALSE(b.allLogsAndQueues().contains(kPassword));

    // Another scan finds nothing to try again for the refused login.
    b.dispatcher.VerifOutBox();
    spinUntil([] { return false; }, 300);
    EXPECT_EQ(b.server.sessionCount(), 4);
}

// An ordinary sender is told, as of any refusal, and the message itself is kept in Error. The
// notice goes the same way, fails the same login and ends in Error too, without breeding another.
TEST(Submission, RefusedLoginTellsTheSenderOnce)
{
    SubmissionScript wrong;
    wrong.password = "another one";
    SubmissionBench b(wrong);
    b.route("smtp://");
    b.deliver("ORD", "<s@src.test>");
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty() && b.server.openSessions() == 0; },
                          10000));

    EXPECT_EQ(b.server.sessionCount(), 2) << "the message's login, then its notice's";
    const QStringList error = b.files("Error");
    ASSERT_EQ(error.size(), 2) << readFile(b.path("maillog.txt")).constData();
    EXPECT_TRUE(error.contains(QStringLiteral("ORD")));
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    EXPECT_EQ(b.read("Error/ORD").LastError, "30003: 535 5.7.8 Authentication credentials invalid");
    EXPECT_EQ(b.mailLog(" ORD connection failed (authentication failed) for " + b.hostPort()
                        + " [127.0.0.1], status=error, return error to=<s@src.test>").size(), 1);
    const CMessage notice = b.read("Error/" + error[error.indexOf(QStringLiteral("ORD")) == 0 ? 1 : 0]);
    EXPECT_EQ(notice.RcptTo(1), "<s@src.test>");
    EXPECT_TRUE(notice.Data.contains("535 5.7.8 Authentication credentials invalid")) << notice.Data.constData();
}

// A certificate from an authority nobody trusts, or for another host, ends the connection before
// anything is said over it, on both forms.
TEST(Submission, UntrustedCertificatesAreRefused)
{
    for (const auto& [identity, what] : {std::pair{certificates().untrusted, "another authority"},
                                         std::pair{certificates().otherName, "another host name"}}) {
        for (const SubmissionScript::Mode mode : {SubmissionScript::StartTls, SubmissionScript::ImplicitTls}) {
            SubmissionScript script;
            script.mode = mode;
            SubmissionBench b(script, identity);
            b.route(mode == SubmissionScript::StartTls ? "smtp://" : "smtps://");
            b.deliver("CERT", "<>");
            ASSERT_EQ(b.server.sessionCount(), 1) << what;
            const SubmissionSession& s = b.server.session(0);
            EXPECT_EQ(s.commands.size(), s.commandsBeforeTls) << what << ": nothing over the refused TLS";
            EXPECT_EQ(b.files("Deferred"), QStringList{"CERT"}) << what;
            EXPECT_TRUE(b.read("Deferred/CERT").LastError.startsWith("30001: ")) << what;
            const QList<QByteArray> lines = b.mailLog("connection failed");
            ASSERT_EQ(lines.size(), 1) << what;
            EXPECT_TRUE(lines[0].endsWith(b.failureLine("TLS error"))) << lines[0].constData();
        }
    }
}

// A password file that others may read, or none at all, stops the delivery before any connection,
// with a line in error.txt that names the file and the mode.
TEST(Submission, PasswordFileMustBeTheUsersAlone)
{
    SubmissionBench b;
    b.route("smtps://");
    const QString file = b.path(QStringLiteral("smtp-password"));
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    b.deliver("OPEN", "<>");
    QFile::remove(file);
    b.deliver("NONE", "<>");

    EXPECT_EQ(b.server.sessionCount(), 0);
    EXPECT_EQ(b.files("Deferred"), (QStringList{"NONE", "OPEN"}));
    const QList<QByteArray> errors = b.errorLog().split('\n');
    ASSERT_GE(errors.size(), 2);
    EXPECT_EQ(errors[0].mid(20), " The password file " + file.toUtf8()
                                     + " has mode 0644: it must have mode 0600 (readable by its owner only)\r");
    EXPECT_EQ(errors[1].mid(20), " The password file " + file.toUtf8()
                                     + " is missing: create it with mode 0600 (readable by its owner only)\r");
    EXPECT_TRUE(b.mailLog(" OPEN connection failed").value(0).endsWith(b.failureLine("authentication failed", "")));
}

// The password comes from the keyring first; where it holds none, or no keyring answers, from
// the file.
TEST(Submission, ThePasswordComesFromTheKeyringFirstElseFromTheFile)
{
    SubmissionBench b;
    b.route("smtp://");
    MemoryKeyring keyring;
    b.settings.keyring = &keyring;
    const QString file = b.path(QStringLiteral("smtp-password"));
    keyring.entries["smtp-password " + b.dir.path()] = kPassword;
    ASSERT_TRUE(WriteOwnerOnlyFile(file, "not this one\n"));
    b.deliver("KEYRING");

    keyring.answers = false;
    ASSERT_TRUE(WriteOwnerOnlyFile(file, kPassword + "\n"));
    b.deliver("NOKEYRING");
    keyring.answers = true;
    keyring.entries.clear();
    b.deliver("NOTFOUND");

    ASSERT_EQ(b.server.sessionCount(), 3) << readFile(b.path("maillog.txt")).constData();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(b.server.session(i).loggedIn) << i;
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

// Without a user there is no login; the rest of the dialogue is the same.
TEST(Submission, NoUserNoLogin)
{
    SubmissionScript script;
    script.user.clear();
    script.password.clear();
    SubmissionBench b(script);
    b.route("smtp://", "");
    QFile::remove(b.path(QStringLiteral("smtp-password"))); // not needed without a user
    b.deliver("ANON");
    ASSERT_EQ(b.server.sessionCount(), 1);
    EXPECT_EQ(b.server.session(0).commands.mid(0, 4),
              (QList<QByteArray>{"EHLO relay.test", "STARTTLS", "EHLO relay.test", "MAIL FROM:<s@src.test>"}));
}

} // namespace
