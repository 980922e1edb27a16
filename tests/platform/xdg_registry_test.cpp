#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include "platform/xdg_registry.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QString kProgramKey = "Software\\Groupe Valbrin\\Postiq";

// A temporary XDG_CONFIG_HOME for the test's lifetime, so that the real one is never touched.
struct XdgBench {
    QTemporaryDir home;
    QByteArray saved = qgetenv("XDG_CONFIG_HOME");
    bool hadValue = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");

    XdgBench() { qputenv("XDG_CONFIG_HOME", home.path().toUtf8()); }
    ~XdgBench()
    {
        if (hadValue)
            qputenv("XDG_CONFIG_HOME", saved);
        else
            qunsetenv("XDG_CONFIG_HOME");
    }
    QString path(const QString& name) const { return home.path() + '/' + name; }
};

TEST(XdgRegistry, ValuesLiveInTheIniUnderTheEnvironmentsConfigHome)
{
    XdgBench bench;
    XdgRegistry registry;
    EXPECT_EQ(registry.readValue(kProgramKey, "System"), QString());
    EXPECT_FALSE(QDir(bench.path("postiq")).exists()); // nothing is created by reading

    registry.writeValue(kProgramKey, "System", "Installed");
    registry.writeValue(kProgramKey, "Version", "3.0");
    registry.writeValue(kProgramKey, "System", "Installed");
    registry.createKey(kProgramKey + "\\Configuration");
    EXPECT_EQ(readFile(bench.path("postiq/registry.ini")),
              QByteArray("[Software\\Groupe Valbrin\\Postiq]\nSystem=Installed\nVersion=3.0\n\n"
                         "[Software\\Groupe Valbrin\\Postiq\\Configuration]\n"));

    XdgRegistry reopened;
    EXPECT_EQ(reopened.readValue(kProgramKey, "Version"), QString("3.0"));
    EXPECT_EQ(reopened.readValue("software\\groupe valbrin\\postiq", "VERSION"), QString("3.0"));
    EXPECT_TRUE(reopened.valueExists(kProgramKey, "System"));
    EXPECT_FALSE(reopened.valueExists(kProgramKey, "Copyrights"));
}

TEST(XdgRegistry, AwkwardTextRoundTrips)
{
    XdgBench bench;
    XdgRegistry registry;
    const QString value = "line one\r\nline two \\ C:\\path = é ";
    registry.writeValue("Software\\Odd", "name=with\\equals", value);
    registry.writeValue("Software\\Odd", "empty", "");
    EXPECT_EQ(XdgRegistry().readValue("Software\\Odd", "name=with\\equals"), value);
    EXPECT_TRUE(registry.valueExists("Software\\Odd", "empty"));
    EXPECT_EQ(readFile(bench.path("postiq/registry.ini")).count('\n'), 3);
}

TEST(XdgRegistry, DeleteKeyTakesSubkeysButNotNeighbours)
{
    XdgBench bench;
    XdgRegistry registry;
    registry.writeValue("Software\\Postiq", "System", "old");
    registry.createKey("Software\\Postiq\\Configuration");
    registry.writeValue("Software\\PostiqOther", "Keep", "yes");
    registry.deleteValue("Software\\PostiqOther", "Missing");
    registry.deleteKey("Software\\Postiq");
    EXPECT_FALSE(registry.valueExists("Software\\Postiq", "System"));
    EXPECT_EQ(readFile(bench.path("postiq/registry.ini")), QByteArray("[Software\\PostiqOther]\nKeep=yes\n"));
    registry.deleteValue("Software\\PostiqOther", "Keep");
    EXPECT_EQ(readFile(bench.path("postiq/registry.ini")), QByteArray("[Software\\PostiqOther]\n"));
}

TEST(XdgRegistry, RunEntryIsTheAutostartFile)
{
    XdgBench bench;
    XdgRegistry registry;
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString());
    EXPECT_FALSE(registry.valueExists(kRunKey, "Postiq"));

    registry.writeValue(kRunKey, "Postiq", "/opt/postiq/postiq");
    EXPECT_EQ(readFile(bench.path("autostart/postiq.desktop")),
              QByteArray("[Desktop Entry]\nType=Application\nName=Postiq\nExec=/opt/postiq/postiq\n"));
    EXPECT_TRUE(registry.valueExists(kRunKey, "Postiq"));
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/opt/postiq/postiq"));
    EXPECT_FALSE(QFile::exists(bench.path("postiq/registry.ini")));

    registry.writeValue(kRunKey, "Other", "kept apart");
    EXPECT_EQ(registry.readValue(kRunKey, "Other"), QString("kept apart"));

    registry.deleteValue(kRunKey, "Postiq");
    EXPECT_FALSE(QFile::exists(bench.path("autostart/postiq.desktop")));
    EXPECT_EQ(registry.readValue(kRunKey, "Other"), QString("kept apart"));
}

TEST(XdgRegistry, CommandWithSpacesIsQuotedAndReadsBackAsWritten)
{
    XdgBench bench;
    XdgRegistry registry;
    const QString command = ExecArgument("/home/me/My Mail $HOME \"x\" 100% C:\\dir/postiq") + " --folder /x";
    registry.writeValue(kRunKey, "Postiq", command);
    EXPECT_TRUE(readFile(bench.path("autostart/postiq.desktop"))
                    .contains("Exec=\"/home/me/My Mail \\\\$HOME \\\\\"x\\\\\" 100%% C:\\\\\\\\dir/postiq\" --folder /x\n"));
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), command);
}

TEST(XdgRegistry, ExecTextRoundTrips)
{
    for (const QString& command : {QString("/opt/postiq"), QString("/a b/c"), QString("/tab\there"),
                                   QString("/new\nline"), QString("/back\\slash"), QString("/%u"),
                                   QString("/q'uote`"), QString()}) {
        EXPECT_EQ(ExecCommand(ExecLine(command)), command) << command.toStdString();
        EXPECT_FALSE(ExecLine(command).contains('\n'));
    }
    EXPECT_EQ(ExecCommand("\"/a b/postiq\" --folder x"), QString("\"/a b/postiq\" --folder x"));
}

} // namespace
