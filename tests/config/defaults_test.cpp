#include <gtest/gtest.h>

#include "config/autostart.h"
#include "config/defaults.h"
#include "config_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

TEST(LoadDefault, WithoutDnsServersFallsBackToLoopback)
{
    Settings settings;
    FakeDiscovery discovery;
    discovery.params = {QString("desk") + QChar(0) + QChar(0), {}};
    LoadDefault(settings, discovery);
    EXPECT_EQ(settings.LocalHostName, QString("desk"));
    EXPECT_EQ(settings.DnsServerList, QStringList{"0"});
    EXPECT_EQ(settings.DefaultSettings.DNSServer, QString("127.0.0.1"));
}

TEST(LoadDefault, FirstOfSeveralServersBecomesTheDefaultWithoutNuls)
{
    Settings settings;
    FakeDiscovery discovery;
    discovery.params.dnsServers = {QString("10.0.0.1") + QString(8, QChar(0)), "fd00::53"};
    LoadDefault(settings, discovery);
    EXPECT_EQ(settings.DnsServerList.size(), 3);
    EXPECT_EQ(settings.DnsServerList[0], QString("2"));
    EXPECT_EQ(settings.DnsServerList[2], QString("fd00::53"));
    EXPECT_EQ(settings.DefaultSettings.DNSServer, QString("10.0.0.1"));
}

TEST(LoadDefault, EmptyHostNameGetsAFallback)
{
    Settings settings;
    FakeDiscovery discovery;
    discovery.params.hostName = QString(3, QChar(0));
    LoadDefault(settings, discovery);
    EXPECT_EQ(settings.LocalHostName, QString("localhost"));
}

TEST(LoadDefault, ClearsUserFlagsButKeepsUserValuesAndActive)
{
    Settings settings;
    settings.UserSettings.SmtpServer = "relay.example.net";
    settings.UserSettings.SmtpServerDefined = true;
    settings.UserSettings.RelayDefined = true;
    settings.ActiveSettings.ListenPort = 2525;
    FakeDiscovery discovery;
    LoadDefault(settings, discovery);
    EXPECT_FALSE(settings.UserSettings.SmtpServerDefined);
    EXPECT_FALSE(settings.UserSettings.RelayDefined);
    EXPECT_EQ(settings.UserSettings.SmtpServer, QString("relay.example.net"));
    EXPECT_EQ(settings.ActiveSettings.ListenPort, 2525);
}

TEST(ApplyUserOverrides, CopiesOnlyFlaggedValuesThenSetsTheRunEntry)
{
    Settings settings;
    FakeDiscovery discovery;
    LoadDefault(settings, discovery);
    ResetActiveToDefaults(settings);
    settings.UserSettings.ListenPort = 2525; // flag left False
    settings.UserSettings.MaxNbrAttempt = 9;
    settings.UserSettings.MaxNbrAttemptDefined = true;
    settings.UserSettings.ComputerStart = true;
    settings.UserSettings.ComputerStartDefined = true;
    MemoryRegistry registry;
    ApplyUserOverrides(settings, registry, "/opt/postiq");
    EXPECT_EQ(settings.ActiveSettings.ListenPort, 25);
    EXPECT_EQ(settings.ActiveSettings.MaxNbrAttempt, 9);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/opt/postiq/postiq"));
}

TEST(SetComputerStart, SwitchingOnTwiceWritesOnce)
{
    MemoryRegistry registry;
    SetComputerStart(registry, "/opt/postiq", true);
    SetComputerStart(registry, "/opt/postiq", true);
    EXPECT_EQ(registry.writes, 1);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/opt/postiq/postiq"));
}

TEST(SetComputerStart, SwitchingOnReplacesAnotherCopysEntry)
{
    MemoryRegistry registry;
    registry.keys[kRunKey]["Postiq"] = "/old/postiq";
    SetComputerStart(registry, "/opt/postiq", true);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/opt/postiq/postiq"));
}

TEST(SetComputerStart, SwitchingOffRemovesOnlyThisCopysEntry)
{
    MemoryRegistry registry;
    registry.keys[kRunKey]["Postiq"] = "/other/postiq";
    SetComputerStart(registry, "/opt/postiq", false);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/other/postiq"));

    registry.keys[kRunKey]["Postiq"] = "/opt/postiq/postiq";
    SetComputerStart(registry, "/opt/postiq", false);
    EXPECT_FALSE(registry.valueExists(kRunKey, "Postiq"));
}

} // namespace
