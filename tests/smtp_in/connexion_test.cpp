#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

TEST(GetResponse, TakesTheVerbAndTheReplyCode)
{
    const struct {
        QByteArray text, verb, code;
    } rows[] = {{"RCPT TO:<b@y.org>\r\n", "RCPT", "RCP"}, {"NOOP\r\n", "NOOP", "NOO"},
                {"data\r\n", "DATA", "dat"},                {" HELO x\r\n", "", " HE"},
                {"250-ok\r\n", "250-OK", "250"},            {"5", "5", "5"},
                {"HELO\r\nMAIL x\r\n", "HELO\r\nMAIL", "HEL"}};
    for (const auto& row : rows) {
        EXPECT_EQ(GetResponse(row.text), row.verb) << row.text.constData();
        EXPECT_EQ(GetResponseCode(row.text), row.code) << row.text.constData();
    }
}

TEST(FindFreeCnxIn, StartsAtTheCursorWrapsToOneAndNeverUsesZeroOrAHundred)
{
    SmtpBench bench;
    bench.settings.ActiveSettings.DebugMode = true;
    ConnectionTables& tables = bench.tables;
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(1)); // the cursor starts at 1
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(1)); // still free: taken again
    tables.CnxIn(1).setStatus(Greeted);
    EXPECT_EQ(tables.FindFreeCnxIn(), std::optional<uint8_t>(2));

    for (int i = 1; i <= 99; ++i)
        tables.CnxIn(i).setStatus(Greeted);
    tables.LastCnxIn = 99;
    EXPECT_EQ(tables.FindFreeCnxIn(), std::nullopt); // 0 and 100 are free, yet never handed out
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

TEST(ConnectionTables, ReleasesResetTheSlotDestroyItsSocketAndRefreshTheView)
{
    SmtpBench bench;
    bench.settings.ActiveSettings.DebugMode = true;
    ConnectionTables& tables = bench.tables;
    QObject session;
    CConnexion& in = tables.LoadCnxIn(7, "127.0.0.1", &session);
    EXPECT_EQ(in.SrvClient, "127.0.0.1");
    EXPECT_EQ(tables.InSession(7), &session);
    in.SmtpCommand = "HE";
    in.Message.AddRcptTo("<b@y.org>");
    in.setStatus(SenderOk);
    tables.ReleaseSmtpLocal(7);
    EXPECT_TRUE(in.SmtpCommand.isEmpty());
    EXPECT_EQ(in.Message.MRcptToCount(), 0);
    EXPECT_EQ(tables.InSession(7), nullptr); // the slot no longer names it

    int wakeUps = 0;
    tables.enableOutboxTimer = [&] { ++wakeUps; };
    tables.LoadSmtpDistant(3);
    CConnexion& out = tables.CnxOut(3);
    out.Connexion = 3;
    out.CnxType = "OUT";
    out.DNS.MX.Add(10, "mx.y.org", "", 3600);
    out.setStatus(20);
    tables.ReleaseSmtpDistant(3);
    EXPECT_EQ(out.DNS.MX.Count(), 0);
    EXPECT_EQ(tables.SmtpDistant(3), nullptr);
    EXPECT_EQ(wakeUps, 1); // a freed outbound slot lets the queue move again
    EXPECT_TRUE(readFile(bench.path("Debug.html")).contains("size='2'>Release connexion out: 3</FONT><BR>"));
    // A busy state is shown at once and each release refreshes the row; setting 0 shows nothing.
    EXPECT_EQ(bench.views.rows, (QList<QPair<QByteArray, int>>{{"IN", 7}, {"IN", 7}, {"OUT", 3}, {"OUT", 3}}));

    // A slot without its session is a fatal fault, raised after the resets.
    in.setStatus(Greeted);
    in.SmtpCommand = "partial";
    EXPECT_THROW(tables.ReleaseSmtpLocal(7), ProgramEnded);
    EXPECT_TRUE(bench.desktop.diagnostics.value(0).startsWith("Where: MOD:MODConnexion[ReleaseSmtpLocal]"));
    EXPECT_EQ(in.Status(), 0);
    EXPECT_TRUE(in.SmtpCommand.isEmpty());
}
