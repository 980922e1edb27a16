#include <QTcpSocket>
#include <gtest/gtest.h>

#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

TEST(GetResponse, TakesTheVerbAndTheReplyCode)
{
    const QList<QPair<QByteArray, QByteArray>> verbs = {
        {"RCPT TO:<b@y.org>\r\n", "RCPT"}, {"NOOP\r\n", "NOOP"}, {"data\r\n", "DATA"},
        {"Quit", "QUIT"},                  {" HELO x\r\n", ""},  {"HELO\r\nMAIL x\r\n", "HELO\r\nMAIL"}};
    for (const auto& [text, verb] : verbs)
        EXPECT_EQ(GetResponse(text), verb) << text.constData();
    const QList<QPair<QByteArray, QByteArray>> codes = {
        {"250-ok\r\n", "250"}, {"221 bye\r\n", "221"}, {"5", "5"}, {"", ""}};
    for (const auto& [text, code] : codes)
        EXPECT_EQ(GetResponseCode(text), code) << text.constData();
}

TEST(FindFreeCnxIn, StartsAtTheCursorWrapsToOneAndNeverUsesZeroOrAHundred)
{
    SmtpBench bench;
    bench.settings.ActiveSettings.DebugMode = true;
    ConnectionTables& tables = bench.tables;
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(1)); // the cursor starts at 1
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(1)); // still free: taken again
    tables.CnxIn(1).setStatus(4);
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(2));

    for (int i = 1; i <= 99; ++i)
        tables.CnxIn(i).setStatus(4);
    tables.LastCnxIn = 99;
    EXPECT_EQ(tables.FindFreeCnxIn(), std::nullopt); // 0 and 100 are free, yet never handed out
    EXPECT_EQ(tables.LastCnxIn, 99);
    tables.CnxIn(17).setStatus(0);
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(17)); // found after the wrap
    EXPECT_EQ(tables.LastCnxIn, 17);

    const QByteArray debug = readFile(bench.path("Debug.html"));
    for (const QByteArray& entry : {QByteArray(": IN demande de connexion demandée<BR>"),
                                    QByteArray(": Recherche d'une connexion IN libre<BR>"),
                                    QByteArray(": Connexion IN trouvée: 17<BR>"),
                                    QByteArray(": Chargement connexion IN[17]<BR>")})
        EXPECT_TRUE(debug.contains("<FONT face='Verdana' size='2'>" + kStamp + entry)) << entry.constData();
}

TEST(ReleaseSmtpLocal, ResetsTheSlotDestroysItsSocketAndRefreshesTheView)
{
    SmtpBench bench;
    ConnectionTables& tables = bench.tables;
    tables.LoadSmtp(7, new QTcpSocket);
    CConnexion& slot = tables.CnxIn(7);
    slot.Connexion = 7;
    slot.CnxType = "IN";
    slot.SmtpCommand = "HE";
    slot.Message.ID = "ABC";
    slot.Message.AddRcptTo("<b@y.org>");
    slot.setStatus(6); // a busy state is shown at once
    tables.ReleaseSmtpLocal(7);
    EXPECT_EQ(slot.Status(), 0);
    EXPECT_TRUE(slot.SmtpCommand.isEmpty());
    EXPECT_EQ(slot.Message.MRcptToCount(), 0);
    EXPECT_EQ(slot.Message.ID, QByteArray("ABC")); // cleared, not rebuilt
    EXPECT_EQ(tables.Smtp(7), nullptr);
    // One refresh for the busy state, one from the release; setting 0 itself shows nothing.
    EXPECT_EQ(bench.connectionsView.updates,
              (QList<QPair<QByteArray, int>>{{"IN", 7}, {"IN", 7}}));
}

TEST(ReleaseSmtpLocal, ASlotWithoutSocketIsAFatalFaultAfterTheResets)
{
    SmtpBench bench;
    CConnexion& slot = bench.tables.CnxIn(5);
    slot.setStatus(4);
    slot.SmtpCommand = "partial";
    EXPECT_THROW(bench.tables.ReleaseSmtpLocal(5), ProgramEnded);
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(bench.desktop.diagnostics[0].startsWith("Where: MOD:MODConnexion[ReleaseSmtpLocal]"));
    EXPECT_EQ(slot.Status(), 0);
    EXPECT_TRUE(slot.SmtpCommand.isEmpty());
}

TEST(ReleaseSmtpDistant, ClearsTheMailHostsAndWakesTheOutboxScan)
{
    SmtpBench bench;
    ConnectionTables& tables = bench.tables;
    int wakeUps = 0;
    tables.enableOutboxTimer = [&] { ++wakeUps; };
    tables.LoadSmtpDistant(3);
    EXPECT_THROW(tables.LoadSmtpDistant(3), Fault);
    CConnexion& slot = tables.CnxOut(3);
    slot.DNS.MX.Add(10, "mx.y.org", "", 3600);
    slot.setStatus(20);
    tables.ReleaseSmtpDistant(3);
    EXPECT_EQ(slot.Status(), 0);
    EXPECT_EQ(slot.DNS.MX.Count(), 0);
    EXPECT_EQ(tables.SmtpDistant(3), nullptr);
    EXPECT_EQ(wakeUps, 1);
    EXPECT_EQ(bench.connectionsView.updates.last(), qMakePair(QByteArray("OUT"), 3));
}
