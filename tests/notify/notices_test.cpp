#include <gtest/gtest.h>

#include <QDir>
#include <QRegularExpression>

#include "config/settings.h"
#include "notify/generate_deferred_mail.h"
#include "notify/generate_return_mail.h"
#include "store/message.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// Each line followed by CR LF, the last one included.
QByteArray Lines(std::initializer_list<const char*> lines)
{
    QByteArray text;
    for (const char* line : lines)
        text += QByteArray(line) + "\r\n";
    return text;
}

// A program folder holding one failed two-recipient message in its outbox.
struct NoticeBench {
    LogBench bench;
    Settings settings;
    QString outBox;

    explicit NoticeBench(const QString& outBoxName = QStringLiteral("OutBox"))
    {
        // A NUL picked up from the system's host name never reaches a notice.
        settings.LocalHostName = QStringLiteral("desk.exa") + QChar(u'\0') + QStringLiteral("mple");
        outBox = bench.path(outBoxName);
        QDir().mkpath(outBox);
    }

    CMessage failed(uint8_t essai, const QByteArray& lastError)
    {
        CMessage message(bench.logs);
        message.ID = "A1B2C";
        message.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
        message.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
        message.Essai = essai;
        message.LastError = lastError;
        message.From = "<alice@home.net>";
        message.AddRcptTo("<bob@x.com>");
        message.AddRcptTo("<carol@x.com>");
        message.Data = "From: alice@home.net\r\nSubject: hi\r\n\r\nbody\r\n";
        message.MWrite(outBox + "/A1B2C");
        return message;
    }
    QStringList queued() const { return QDir(outBox).entryList(QDir::Files | QDir::Hidden); }
};

const QByteArray kReturnedPart = Lines({
    "--B36A337F60.1076950585/desk.example",
    "Content-Description: Undelivered Message",
    "Content-Type: message/rfc822",
    "",
    "From: alice@home.net",
    "Subject: hi",
    "",
    "body",
    "",
    "--B36A337F60.1076950585/desk.example--",
});

} // namespace

TEST(ReturnMail, ReplacesTheFailedFileWithAReportToTheSender)
{
    NoticeBench n;
    const CMessage failed =
        n.failed(4, "10061: refused by peer (Connection refused)\r\n\r\nThis was the 4st attempt ...");
    CGenerateReturnMail(n.bench.logs, n.settings).GenerateError("A1B2C");

    ASSERT_EQ(n.queued(), QStringList{"A1B2C"});
    CMessage bounce(n.bench.logs);
    bounce.MOpen(n.outBox + "/A1B2C");
    const QByteArray expected = Lines({
        "From: MAILER-DAEMON@desk.example (Mail Delivery System)",
        "Subject: Undelivered Mail Returned to Sender",
        "To: <alice@home.net>",
        "MIME-Version: 1.0",
        "Content-Type: multipart/report; report-type=delivery-status;",
        "\tboundary = \"B36A337F60.1076950585/desk.example",
        "Message-Id: <20040205090507.E469037F67@desk.example>",
        "X-Priority: 3 (Normal)",
        "X-MSMail-Priority: Normal",
        "X-Mailer: Postiq 3.0 (http://www.postiq.example/)",
        "Importance: Normal",
        "",
        "This is a MIME-encapsulated message.",
        "",
        "--B36A337F60.1076950585/desk.example",
        "Content-Description: Notification",
        "Content-Type: text/plain",
        "",
        "This is the Postiq program at host desk.example.",
        "",
        "I'm sorry to have to inform you that the message returned",
        "below could not be delivered to one or more destinations.",
        "",
        "For further assistance, please send mail to <postmaster>",
        "",
        "If you do so, please include this problem report. You can",
        "delete your own text from the message returned below.",
        "",
        "            The Postiq program",
        "",
        "<bob@x.com>: 10061: refused by peer (Connection refused)",
        "",
        "This was the 4st attempt ...",
        "<carol@x.com>: 10061: refused by peer (Connection refused)",
        "",
        "This was the 4st attempt ...",
        "",
        "--B36A337F60.1076950585/desk.example",
        "Content-Description: Delivery error report",
        "Content-Type: message/delivery-status",
        "",
        "Reporting-MTA: desk.example",
        "Arrival-Date: Feb 05 2004 09:05:07 +0200",
        "",
        "Final-Recipient: rfc822; <bob@x.com>",
        "Final-Recipient: rfc822; <carol@x.com>",
        "Action: failed",
        "Diagnostic-Code: 10061: refused by peer (Connection refused)",
        "",
        "This was the 4st attempt ...",
        "",
    }) + kReturnedPart;
    EXPECT_EQ(bounce.Data, expected);

    // Sent back to the sender, who stays the envelope sender; the second recipient stays too.
    EXPECT_EQ(bounce.MRcptToCount(), 2);
    EXPECT_EQ(bounce.RcptTo(1), failed.From);
    EXPECT_EQ(bounce.RcptTo(2), failed.RcptTo(2));
    EXPECT_EQ(bounce.From, failed.From);
    EXPECT_EQ(bounce.Essai, 0);
    EXPECT_TRUE(bounce.ForSender);
    EXPECT_EQ(bounce.ID, failed.ID);
    EXPECT_EQ(bounce.LastError, failed.LastError);
    EXPECT_EQ(bounce.TxtFr, failed.TxtFr);
    EXPECT_TRUE(n.bench.desktop.diagnostics.isEmpty());
}

TEST(DelayNotice, QueuesANewNoticeToTheSenderAndRemovesTheOutBoxCopy)
{
    NoticeBench n(QStringLiteral("Outbox")); // found whatever its letter case
    const CMessage delayed = n.failed(1, "10060: time out (Connection timed out)");
    CGenerateDeferredMail(n.bench.logs, n.settings).GenerateDeferred("A1B2C");

    const QStringList queued = n.queued();
    ASSERT_EQ(queued.size(), 1);
    const QRegularExpression freshName(QStringLiteral("^[0-9A-F]{2,10}$"));
    EXPECT_TRUE(freshName.match(queued[0]).hasMatch()) << queued[0].toStdString();
    CMessage notice(n.bench.logs);
    notice.MOpen(n.outBox + '/' + queued[0]);
    EXPECT_EQ(notice.ID, queued[0].toLatin1());
    const QByteArray expected = Lines({
        "From: MAILER-DAEMON@desk.example (Mail Delivery System)",
        "Subject: Delivery Status Notification (Mail Delivery Delayed)",
        "To: <alice@home.net>",
        "MIME-Version: 1.0",
        "Content-Type: multipart/report; report-type=delivery-status;",
        "\tboundary = \"B36A337F60.1076950585/desk.example",
        "Message-Id: <20040205090507.E469037F67@desk.example>",
        "X-Priority: 3 (Normal)",
        "X-MSMail-Priority: Normal",
        "X-Mailer: Postiq 3.0 (http://www.postiq.example/)",
        "Importance: Normal",
        "",
        "This is a MIME-encapsulated message.",
        "",
        "--B36A337F60.1076950585/desk.example",
        "Content-Description: Notification",
        "Content-Type: text/plain",
        "",
        "This is the Postiq program at host desk.example.",
        "",
        "- This is NOT a error issue.",
        "- This is only a notification about a delay in the delivery of your message.",
        "- There is no need to resend your message at this time.",
        "- The following recipients have not yet received your message:",
        "<bob@x.com>: 10060: time out (Connection timed out)",
        "<carol@x.com>: 10060: time out (Connection timed out)",
        "",
        "- The server will continue trying for up to 1 hour.",
        "",
        "It was the 1 attempt !",
        "I'll try again soon until 3 times",
        "The error returned was:",
        "",
        "10060: time out (Connection timed out)",
        "",
        "For further assistance, please send mail to <postmaster>",
        "",
        "If you do so, please include this problem report. You can",
        "delete your own text from the message returned below.",
        "",
        "--B36A337F60.1076950585/desk.example",
        "Content-Description: Delivery error report",
        "Content-Type: message/delivery-status",
        "",
        "Reporting-MTA: desk.example",
        "Arrival-Date: Feb 05 2004 09:05:07 +0200",
        "",
        "Final-Recipient: rfc822; <alice@home.net>",
        "Action: delayed",
        "Diagnostic-Code: 10060: time out (Connection timed out)",
        "",
    }) + kReturnedPart;
    EXPECT_EQ(notice.Data, expected);

    EXPECT_EQ(notice.MRcptToCount(), 1); // the sender only, whatever the recipients were
    EXPECT_EQ(notice.RcptTo(1), delayed.From);
    EXPECT_EQ(notice.From, delayed.From);
    EXPECT_EQ(notice.Essai, 0);
    EXPECT_TRUE(notice.ForSender);
    EXPECT_TRUE(n.bench.desktop.diagnostics.isEmpty());
}

TEST(Notices, FaultsAreFatalUnderTheirOwnLabelAndLeaveTheQueueAsItWas)
{
    {
        NoticeBench n;
        EXPECT_THROW(CGenerateReturnMail(n.bench.logs, n.settings).GenerateError("A1B2C"), ProgramEnded);
        EXPECT_TRUE(
            n.bench.desktop.diagnostics.value(0).startsWith("Where: CLS:CLASS[GenerateError], number 53:"));
        EXPECT_TRUE(n.queued().isEmpty());
    }
    {
        NoticeBench n;
        CGenerateDeferredMail generator(n.bench.logs, n.settings);
        EXPECT_THROW(generator.GenerateDeferred("A1B2C"), ProgramEnded);
        EXPECT_TRUE(n.bench.desktop.diagnostics.value(0).startsWith(
            "Where: CLS:GENERATEDEFERREDMAIL[GenerateDeferred], number 53:"));
        EXPECT_TRUE(n.queued().isEmpty());
    }
    {
        // The recipient counter cannot step past a 255th recipient: the failed file stays.
        NoticeBench n;
        CMessage full = n.failed(4, "550 no");
        for (int index = 3; index <= 255; ++index)
            full.AddRcptTo("<r" + QByteArray::number(index) + "@x.com>");
        full.MWrite(n.outBox + "/A1B2C");
        const QByteArray before = readFile(n.outBox + "/A1B2C");
        EXPECT_THROW(CGenerateReturnMail(n.bench.logs, n.settings).GenerateError("A1B2C"), ProgramEnded);
        EXPECT_TRUE(
            n.bench.desktop.diagnostics.value(0).startsWith("Where: CLS:CLASS[GenerateError], number 6:"));
        EXPECT_EQ(n.queued(), QStringList{"A1B2C"});
        EXPECT_EQ(readFile(n.outBox + "/A1B2C"), before);
    }
}
