#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QSysInfo>
#include <QTemporaryDir>
#include <memory>

#include "platform/instance_lock.h"
#include "platform/linux_network.h"
#include "platform/program_folder.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

TEST(LinuxNetworkDiscovery, NameServersInOrderAsWrittenAndNoneWithoutTheFile)
{
    QTemporaryDir dir;
    const QString resolvConf = dir.path() + "/resolv.conf";
    writeFile(resolvConf, "# nameserver 9.9.9.9\n"
                          "; nameserver 8.8.8.8\n"
                          "search example.net\n"
                          "nameserver 10.0.0.1\r\n"
                          "  nameserver\tfd00::53   # trailing words are ignored\n"
                          "nameserver\n"
                          "nameservers 10.9.9.9\n"
                          "nameserver 127.0.0.53");
    EXPECT_EQ(LinuxNetworkDiscovery(resolvConf).query().dnsServers,
              QStringList({"10.0.0.1", "fd00::53", "127.0.0.53"}));
    EXPECT_TRUE(LinuxNetworkDiscovery(dir.path() + "/missing").query().dnsServers.isEmpty());
}

TEST(InstanceLock, OneHolderPerFolderUntilItIsDestroyed)
{
    QTemporaryDir dir;
    auto first = std::make_unique<InstanceLock>(dir.path());
    ASSERT_TRUE(first->tryLock());
    EXPECT_TRUE(QFile::exists(dir.path() + "/.postiq.lock"));
    EXPECT_FALSE(InstanceLock(dir.path()).tryLock());

    QTemporaryDir other;
    EXPECT_TRUE(InstanceLock(other.path()).tryLock());

    first.reset();
    EXPECT_FALSE(QFile::exists(dir.path() + "/.postiq.lock"));
    EXPECT_TRUE(InstanceLock(dir.path()).tryLock());
}

TEST(InstanceLock, LockOfAProcessThatIsGoneIsTakenOver)
{
    QTemporaryDir dir;
    // What a crashed run on this machine leaves behind: a process id that is not running.
    writeFile(dir.path() + "/.postiq.lock",
              "2147483646\npostiq\n" + QSysInfo::machineHostName().toUtf8() + "\n");
    EXPECT_TRUE(InstanceLock(dir.path()).tryLock());
}

TEST(ProgramFolder, MissingFolderIsCreatedAndProbedForWriting)
{
    QTemporaryDir dir;
    QString error;
    EXPECT_TRUE(prepareProgramFolder(dir.path() + "/a/b", &error)) << error.toStdString();
    EXPECT_TRUE(QDir(dir.path() + "/a/b").exists());
    EXPECT_TRUE(QDir(dir.path() + "/a/b").entryList(QDir::Files | QDir::Hidden).isEmpty());

    writeFile(dir.path() + "/file", "x");
    EXPECT_FALSE(prepareProgramFolder(dir.path() + "/file", &error));
    EXPECT_TRUE(error.contains(dir.path() + "/file"));
    EXPECT_FALSE(prepareProgramFolder(dir.path() + "/file/sub", &error));
    EXPECT_FALSE(error.isEmpty());
}

} // namespace

TEST(SubfolderPath, FindsTheFolderWhateverItsCase)
{
    const struct { const char* name; QStringList folders; QString expected; } cases[] = {
        {"no folder, only a file: the name as given", {}, "OutBox"},
        {"the exact name", {"OutBox"}, "OutBox"},
        {"another case", {"outbox"}, "outbox"},
        {"the exact name wins over another case", {"OUTBOX", "OutBox"}, "OutBox"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        for (const QString& folder : test.folders)
            QDir(bench.dir.path()).mkdir(folder);
        writeFile(bench.path("oUTbOX"), "a file, never taken for the folder");
        EXPECT_EQ(SubfolderPath(bench.dir.path(), QStringLiteral("OutBox")), bench.path(test.expected));
    }
}
