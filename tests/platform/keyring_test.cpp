#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <optional>

#include "platform/keyring.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A session of its own: a private message bus and a GNOME Keyring on it, unlocked with a password
// given on its standard input, its keyrings in a scratch home. This process talks to that bus.
class PrivateKeyringSession {
public:
    ~PrivateKeyringSession()
    {
        for (QProcess* process : {&keyring_, &bus_}) {
            if (process->state() != QProcess::NotRunning) {
                process->terminate();
                if (!process->waitForFinished(3000))
                    process->kill();
                process->waitForFinished(3000);
            }
        }
    }

    static bool available()
    {
        return !QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()
            && !QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon")).isEmpty();
    }

    bool start()
    {
        const QString busPath = home_.path() + QStringLiteral("/bus");
        const QString runtime = home_.path() + QStringLiteral("/run");
        QDir().mkpath(runtime);
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), home_.path());
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home_.path() + QStringLiteral("/data"));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        environment.remove(QStringLiteral("DISPLAY"));
        bus_.setProcessEnvironment(environment);
        bus_.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nosyslog"),
                    QStringLiteral("--address=unix:path=") + busPath});
        if (!bus_.waitForStarted(5000) || !spinUntil([&] { return QFile::exists(busPath); }, 5000))
            return false;
        const QByteArray address = "unix:path=" + QFile::encodeName(busPath);
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromLatin1(address));
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        qunsetenv("XDG_CURRENT_DESKTOP"); // the Secret Service, whatever desktop runs the tests

        keyring_.setProcessEnvironment(environment);
        keyring_.start(QStringLiteral("gnome-keyring-daemon"),
                       {QStringLiteral("--foreground"), QStringLiteral("--unlock"), QStringLiteral("--components=secrets")});
        if (!keyring_.waitForStarted(5000))
            return false;
        keyring_.write("unlock me");
        keyring_.closeWriteChannel();
        return true;
    }

private:
    QTemporaryDir home_;
    QProcess bus_;
    QProcess keyring_;
};

std::optional<KeyringAnswer> ask(const std::function<void(QObject*, Keyring::Answer)>& request)
{
    QObject context;
    std::optional<KeyringAnswer> answer;
    bool answeredInside = false;
    request(&context, [&](const KeyringAnswer& said) { answer = said; });
    answeredInside = answer.has_value();
    spinUntil([&] { return answer.has_value(); }, 10000);
    EXPECT_FALSE(answeredInside) << "the answer comes from the event loop";
    return answer;
}

TEST(Keyring, ThePasswordRoundTripsThroughARealSecretService)
{
    if (!PrivateKeyringSession::available())
        GTEST_SKIP() << "dbus-daemon or gnome-keyring-daemon is not installed";
    PrivateKeyringSession session;
    ASSERT_TRUE(session.start());
    std::unique_ptr<Keyring> keyring = SessionKeyring({QStringLiteral(POSTIQ_MODULE_DIR)});
    ASSERT_NE(keyring, nullptr) << "the session has a bus, and the module is built";

    // The daemon takes a moment to come up on the bus.
    const QByteArray secret = "pä55 word, with spaces";
    std::optional<KeyringAnswer> written;
    for (int tries = 0; tries < 25; ++tries) {
        written = ask([&](QObject* context, Keyring::Answer answer) {
            keyring->write("smtp-password /home/me/postiq", secret, context, answer);
        });
        if (written && written->status == KeyringAnswer::Done)
            break;
        spinUntil([] { return false; }, 200);
    }
    ASSERT_TRUE(written.has_value());
    ASSERT_EQ(written->status, KeyringAnswer::Done) << written->reason.toStdString();

    const auto read = ask([&](QObject* context, Keyring::Answer answer) {
        keyring->read("smtp-password /home/me/postiq", context, answer);
    });
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->status, KeyringAnswer::Done);
    EXPECT_EQ(read->secret, secret);

    const auto other = ask([&](QObject* context, Keyring::Answer answer) {
        keyring->read("smtp-password /home/me/other", context, answer);
    });
    ASSERT_TRUE(other.has_value());
    EXPECT_EQ(other->status, KeyringAnswer::NotFound) << "one entry per program folder";

    // An answer for a context that is gone is never given.
    bool answered = false;
    {
        QObject gone;
        keyring->read("smtp-password /home/me/postiq", &gone, [&](const KeyringAnswer&) { answered = true; });
    }
    spinUntil([] { return false; }, 500);
    EXPECT_FALSE(answered);
}

// Without a session bus (a server, a system service) there is no keyring to ask.
TEST(Keyring, NoSessionBusNoKeyring)
{
    const QByteArray address = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    QTemporaryDir emptyRuntime;
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(emptyRuntime.path()));
    EXPECT_EQ(SessionKeyring({QStringLiteral(POSTIQ_MODULE_DIR)}), nullptr);
    // With a bus but without the module (a package installed without it), the file serves.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    EXPECT_EQ(SessionKeyring({emptyRuntime.path()}), nullptr);
    qputenv("DBUS_SESSION_BUS_ADDRESS", address);
    qputenv("XDG_RUNTIME_DIR", runtime);
}

} // namespace
