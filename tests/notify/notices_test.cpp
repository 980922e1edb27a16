#include <gtest/gtest.h>

#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimeZone>

#include "config/settings.h"
#include "notify/mail_reader.h"
#include "notify/notice.h"
#include "store/message.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A failed two-recipient message and notices about it.
struct NoticeBench {
    LogBench bench;
    Settings settings;
    CMessage original{bench.logs};

    NoticeBench()
    {
        // A NUL picked up from the system's host name never reaches a notice.
        settings.LocalHostName = QStringLiteral("desk.exa") + QChar(u'\0') + QStringLiteral("mple");
        // Five hours west of UTC: the notice must say so, not "+0200".
        bench.clock.time = QDateTime(QDate(2004, 2, 5), QTime(9, 5, 7), QTimeZone(-5 * 3600));
        original.ID = "A1B2C";
        original.Essai = 2;
        original.LastError = "550 5.1.1 <bob@x.com>: unknown";
        original.From = "<alice@home.net>";
        original.AddRcptTo("<bob@x.com>");
        original.AddRcptTo("<carol@x.com>");
        original.Data = "From: alice@home.net\r\nSubject: hi\r\n\r\nbody\r\n";
    }

    CMessage notice(NoticeKind kind, QList<RecipientFate> fates = {})
    {
        if (fates.isEmpty())
            fates = {{"<bob@x.com>", "5.1.1", "mx.x.com", "550 5.1.1 <bob@x.com>: unknown"},
                     {"<carol@x.com>", "4.4.1", "", "10061: Connection refused"}};
        const QDateTime arrival(QDate(2004, 2, 4), QTime(23, 0, 1), QTimeZone(3600));
        return BuildNotice(bench.logs, settings, bench.clock, {kind, &original, arrival, fates});
    }
};

#define REQUIRE_PYTHON()                                                                                               \
    if (!HavePython())                                                                                                 \
    GTEST_SKIP() << "python3 is not installed"

QJsonObject field(const QJsonObject& report, int block) { return report["status"].toArray()[block].toObject(); }

// What every notice must be, whatever it is about.
void ExpectValidReport(const QJsonObject& report, const CMessage& notice)
{
    EXPECT_TRUE(report["defects"].toArray().isEmpty()) << QJsonDocument(report["defects"].toArray()).toJson().toStdString();
    EXPECT_EQ(report["type"].toString(), "multipart/report");
    EXPECT_EQ(report["reportType"].toString(), "delivery-status");
    EXPECT_EQ(report["autoSubmitted"].toString(), "auto-replied");
    EXPECT_EQ(report["from"].toString(), "MAILER-DAEMON@desk.example (Mail Delivery System)");
    EXPECT_EQ(report["to"].toString(), "<alice@home.net>");
    EXPECT_EQ(report["zoneSeconds"].toDouble(), -5 * 3600) << "the clock's own zone";
    EXPECT_EQ(report["arrivalZoneSeconds"].toDouble(), 3600) << "the arrival's own zone";
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^<\\d{14}\\.[0-9a-f]{16}@desk\\.example>$"))
                    .match(report["messageId"].toString())
                    .hasMatch())
        << report["messageId"].toString().toStdString();
    EXPECT_FALSE(notice.Data.contains("+0200"));
    EXPECT_EQ(field(report, 0)["Reporting-MTA"].toString(), "dns; desk.example");
    EXPECT_EQ(field(report, 0)["Arrival-Date"].toString(), "Wed, 04 Feb 2004 23:00:01 +0100");

    // Sent from the null sender to the original's sender alone, and never answered in turn.
    EXPECT_EQ(notice.From, "<>");
    EXPECT_EQ(notice.MRcptToCount(), 1);
    EXPECT_EQ(notice.RcptTo(1), "<alice@home.net>");
    EXPECT_TRUE(notice.ForSender);
    EXPECT_EQ(notice.Essai, 0);
    EXPECT_TRUE(notice.ID.isEmpty());
}

TEST(Notices, BounceIsAReportWithABlockPerRecipientAndTheWholeMessage)
{
    REQUIRE_PYTHON();
    NoticeBench n;
    const CMessage bounce = n.notice(NoticeKind::Bounce);
    const QJsonObject report = ReadAsMailReader(bounce.Data);
    ExpectValidReport(report, bounce);

    EXPECT_EQ(report["subject"].toString(), "Undelivered Mail Returned to Sender");
    EXPECT_EQ(report["parts"].toArray(), QJsonArray({"text/plain", "message/delivery-status", "message/rfc822"}));
    EXPECT_EQ(report["text"].toString(),
              "This is the Postiq program at host desk.example.\r\n\r\n"
              "I'm sorry to have to inform you that the message returned\r\n"
              "below could not be delivered to one or more destinations.\r\n\r\n"
              "For further assistance, please send mail to <postmaster>\r\n\r\n"
              "If you do so, please include this problem report. You can\r\n"
              "delete your own text from the message returned below.\r\n\r\n"
              "            The Postiq program\r\n\r\n"
              "<bob@x.com>: 550 5.1.1 <bob@x.com>: unknown\r\n"
              "<carol@x.com>: 10061: Connection refused\r\n");

    ASSERT_EQ(report["status"].toArray().size(), 3);
    EXPECT_EQ(field(report, 1), (QJsonObject{{"Final-Recipient", "rfc822; bob@x.com"},
                                             {"Action", "failed"},
                                             {"Status", "5.1.1"},
                                             {"Remote-MTA", "dns; mx.x.com"},
                                             {"Diagnostic-Code", "smtp; 550 5.1.1 <bob@x.com>: unknown"}}));
    EXPECT_EQ(field(report, 2), (QJsonObject{{"Final-Recipient", "rfc822; carol@x.com"},
                                             {"Action", "failed"},
                                             {"Status", "4.4.1"},
                                             {"Diagnostic-Code", "smtp; 10061: Connection refused"}}))
        << "no Remote-MTA where no server answered";

    EXPECT_EQ(report["returnedSubject"].toString(), "hi");
    EXPECT_EQ(report["returnedBody"].toString(), "body\r\n");
    EXPECT_TRUE(bounce.Data.contains("Content-Type: message/rfc822\r\n\r\n" + n.original.Data + "\r\n--"))
        << "the message comes back byte for byte";
}

TEST(Notices, DelayNoticeKeepsItsWordingAndReturnsTheHeaderOnly)
{
    REQUIRE_PYTHON();
    NoticeBench n;
    const CMessage notice = n.notice(NoticeKind::Delay,
                                     {{"<bob@x.com>", "4.7.1", "mx.x.com", "451 4.7.1 greylisted"},
                                      {"<carol@x.com>", "4.7.1", "mx.x.com", "451 4.7.1 greylisted"}});
    const QJsonObject report = ReadAsMailReader(notice.Data);
    ExpectValidReport(report, notice);

    EXPECT_EQ(report["subject"].toString(), "Delivery Status Notification (Mail Delivery Delayed)");
    EXPECT_EQ(report["parts"].toArray(),
              QJsonArray({"text/plain", "message/delivery-status", "text/rfc822-headers"}));
    const QString text = report["text"].toString();
    for (const char* line : {"- This is NOT a error issue.\r\n",
                             "- The following recipients have not yet received your message:\r\n"
                             "<bob@x.com>: 451 4.7.1 greylisted\r\n<carol@x.com>: 451 4.7.1 greylisted\r\n\r\n",
                             "It was the 2 attempt !\r\nI'll try again soon until 3 times\r\n"
                             "The error returned was:\r\n\r\n550 5.1.1 <bob@x.com>: unknown\r\n"})
        EXPECT_TRUE(text.contains(QLatin1String(line))) << line;
    ASSERT_EQ(report["status"].toArray().size(), 3);
    for (int block : {1, 2}) {
        EXPECT_EQ(field(report, block)["Action"].toString(), "delayed");
        EXPECT_EQ(field(report, block)["Status"].toString(), "4.7.1");
    }
    EXPECT_EQ(field(report, 2)["Final-Recipient"].toString(), "rfc822; carol@x.com");
    EXPECT_EQ(report["returnedHeader"].toString(), "From: alice@home.net\r\nSubject: hi\r\n");
    EXPECT_FALSE(notice.Data.contains("body\r\n")) << "the body stays with the sender";
}

TEST(Notices, EachNoticeHasItsOwnBoundaryAndMessageId)
{
    REQUIRE_PYTHON();
    NoticeBench n;
    const QJsonObject first = ReadAsMailReader(n.notice(NoticeKind::Bounce).Data);
    const QJsonObject second = ReadAsMailReader(n.notice(NoticeKind::Bounce).Data);
    EXPECT_NE(first["boundary"].toString(), second["boundary"].toString());
    EXPECT_NE(first["messageId"].toString(), second["messageId"].toString());
    EXPECT_FALSE(first["boundary"].toString().isEmpty());
}

TEST(Notices, HostileRepliesAndMessagesStillMakeAValidReport)
{
    REQUIRE_PYTHON();
    NoticeBench n;
    // A multi-line reply with a blank line and 8-bit bytes, a bare LF, an address with brackets
    // and spaces around them; a message with 8-bit text and no body at all.
    n.original.Data = "Subject: caf\xC3\xA9\r\nX-Long: a\r\n b\r\n\r\nna\xEF" "ve\r\n";
    n.original.LastError = "";
    const QByteArray reply = "550-5.1.1 first line\r\n\r\n550-\xFF\x01 odd\n550 5.1.1 last";
    const CMessage bounce = n.notice(NoticeKind::Bounce, {{" <bob@x.com> ", "5.1.1", "mx\r\n.x.com", reply}});
    const QJsonObject report = ReadAsMailReader(bounce.Data);
    ExpectValidReport(report, bounce);
    ASSERT_EQ(report["status"].toArray().size(), 2);
    EXPECT_EQ(field(report, 1)["Final-Recipient"].toString(), "rfc822; bob@x.com");
    EXPECT_EQ(field(report, 1)["Diagnostic-Code"].toString(), "smtp; 550-5.1.1 first line 550-?? odd 550 5.1.1 last")
        << "folded, blank line dropped, bytes made printable";
    EXPECT_EQ(report["returnedBody"].toString(), QString::fromLatin1("na\xEF" "ve\r\n"));
    EXPECT_TRUE(bounce.Data.contains("Content-Type: message/rfc822\r\nContent-Transfer-Encoding: 8bit\r\n"));

    // The delay notice of a message that is all header, and the error taken from the recipient.
    n.original.Data = "Subject: only a header\r\n";
    const CMessage delay = n.notice(NoticeKind::Delay, {{"<bob@x.com>", "4.4.1", "", "10060: time out"}});
    const QJsonObject delayed = ReadAsMailReader(delay.Data);
    ExpectValidReport(delayed, delay);
    EXPECT_EQ(delayed["returnedHeader"].toString(), "Subject: only a header\r\n");
    EXPECT_TRUE(delayed["text"].toString().contains("The error returned was:\r\n\r\n10060: time out\r\n"));
}

TEST(Notices, EnhancedStatusFromTheReplyOrTheCause)
{
    const struct {
        FailureCause cause;
        const char* reply;
        bool permanent;
        const char* status;
    } cases[] = {
        {FailureCause::Reply, "550 5.1.1 <b@x>: unknown user", true, "5.1.1"},
        {FailureCause::Reply, "452-4.2.2 mailbox full\r\n452 4.2.2 really", false, "4.2.2"},
        {FailureCause::Reply, "554 5.7.1", true, "5.7.1"},
        {FailureCause::Reply, "550 relay denied", true, "5.0.0"},
        {FailureCause::Reply, "421 service not available", true, "4.0.0"}, // the class wins
        {FailureCause::Reply, "550 4.1.1 class mismatch", true, "5.0.0"},
        {FailureCause::Reply, "550 5.1.1000 too long", true, "5.0.0"},
        {FailureCause::Reply, "5501 5.1.1 no code", true, "5.0.0"},
        {FailureCause::Reply, "garbage", false, "4.0.0"},
        {FailureCause::Reply, "", true, "5.0.0"},
        {FailureCause::Reply, "250 2.0.0 out of place", false, "4.0.0"},
        {FailureCause::NoAnswer, "", true, "4.4.1"},
        {FailureCause::NoExchanger, "", true, "5.1.2"},
        {FailureCause::NoExchanger, "", false, "4.4.3"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(EnhancedStatus(c.cause, c.reply, c.permanent), c.status) << c.reply;
}

} // namespace

namespace {

// The random parts of a notice (boundary, Message-ID token) as one fixed word, to compare two.
QByteArray withoutTokens(QByteArray text)
{
    static const QRegularExpression token(QStringLiteral("[0-9a-f]{16}"));
    return QString::fromLatin1(text).replace(token, QStringLiteral("TOKEN")).toLatin1();
}

// A notice queued from the original's file, its text copied a chunk at a time, is the very notice
// built in memory: same words, same parts, the whole message (or its header) returned.
TEST(Notices, AQueuedNoticeCopiesTheOriginalFromItsFileInChunks)
{
    NoticeBench n;
    QTemporaryDir root;
    Queue queue(root.path());
    queue.createMissingFolders();
    n.original.Data = "From: alice@home.net\r\nSubject: big\r\n\r\n";
    for (int i = 0; n.original.Data.size() < 600 * 1024; ++i)
        n.original.Data += "line " + QByteArray::number(i) + " \xe9\r\n";
    const QByteArray name = queue.enqueue(n.original).value(0);
    CMessage head(n.bench.logs);
    queue.readHead(QueueFolder::OutBox, name, head); // what the notice is given: no text
    const QDateTime arrival(QDate(2004, 2, 4), QTime(23, 0, 1), QTimeZone(3600));
    const QList<RecipientFate> fates{{"<bob@x.com>", "5.1.1", "mx.x.com", "550 5.1.1 <bob@x.com>: unknown"}};
    for (const NoticeKind kind : {NoticeKind::Bounce, NoticeKind::Delay}) {
        const QByteArray queued =
            QueueNotice(queue, n.bench.logs, n.settings, n.bench.clock, {kind, &head, arrival, fates},
                        QueueFolder::OutBox, name);
        CMessage written(n.bench.logs);
        queue.read(QueueFolder::OutBox, queued, written);
        const CMessage built = BuildNotice(n.bench.logs, n.settings, n.bench.clock, {kind, &n.original, arrival, fates});
        EXPECT_EQ(withoutTokens(written.Data), withoutTokens(built.Data));
        EXPECT_EQ(written.ID, queued);
        EXPECT_TRUE(written.ForSender);
        EXPECT_EQ(written.From, QByteArray("<>"));
        EXPECT_EQ(written.RcptTo(1), QByteArray("<alice@home.net>"));
        EXPECT_EQ(written.Data.contains("\r\nline 9999 "), kind == NoticeKind::Bounce);
    }
    // An original that is gone leaves no notice behind.
    queue.remove(QueueFolder::OutBox, name);
    EXPECT_THROW(QueueNotice(queue, n.bench.logs, n.settings, n.bench.clock,
                             {NoticeKind::Bounce, &head, arrival, fates}, QueueFolder::OutBox, name),
                 QueueFault);
    EXPECT_EQ(queue.list(QueueFolder::OutBox).size(), 2);
}

} // namespace
