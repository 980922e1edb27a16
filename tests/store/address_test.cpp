#include <gtest/gtest.h>

#include <QDir>
#include <QRegularExpression>
#include <optional>

#include "store/address.h"
#include "store/message.h"
#include "store_test_support.h"

using namespace postiq;
using namespace postiq::test;

TEST(Address, CheckEmailAndGetDomain)
{
    struct Case {
        QByteArray address;
        bool acceptable;
        std::optional<QByteArray> domain; // none: GetDomain is fatal
    };
    const Case cases[] = {
        {"<john@example.com>", true, "example.com"},
        {"<John@Example.COM>", true, "Example.COM"},
        {"<@.>", true, "."},                        // empty parts are not checked
        {"<a b@c d.e>", true, "c d.e"},
        {"john@example.com", false, "example.co"},  // no brackets: the last character goes anyway
        {"<john@example.com", false, "example.co"},
        {"<jo<hn@example.com>", false, "example.com"},
        {"<a@b@c.d>", false, ""},                   // the piece between the two "@", less one
        {"<a@bc@d.e>", false, "b"},
        {"<john@localhost>", false, "localhost"},
        {"<john.example.com>", false, std::nullopt},
        {"<>", false, std::nullopt},
        {"<", false, std::nullopt},
        {"", false, std::nullopt},
        {"<a@>", false, ""},
        {"<a@", false, std::nullopt},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.address.constData());
        EXPECT_EQ(CheckEmail(test.address), test.acceptable);
        LogBench bench;
        if (test.domain) {
            EXPECT_EQ(GetDomain(bench.logs, test.address), *test.domain);
        } else {
            const QString report = FatalReportOf(bench, [&] { GetDomain(bench.logs, test.address); });
            EXPECT_TRUE(report.startsWith("Where: MOD:MESSAGE[GetDomain]")) << report.toStdString();
        }
    }
}

namespace {

const QByteArray kEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
const QByteArray kFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";

CMessage Received(Logs& logs, const QList<QByteArray>& recipients)
{
    CMessage message(logs);
    message.TxtEng = kEng;
    message.TxtFr = kFr;
    message.From = "<sender@home.net>";
    message.Data = "Subject: hi\r\n\r\nbody\r\n";
    for (const QByteArray& recipient : recipients)
        message.AddRcptTo(recipient);
    return message;
}

struct QueuedFile {
    QString name;
    QList<QByteArray> recipients;
};

// The files of the folder, each opened, in the order of their "-k" suffix.
QList<QueuedFile> Queued(LogBench& bench, const QString& folder, const CMessage& original)
{
    QStringList names = QDir(folder).entryList(QDir::Files);
    std::sort(names.begin(), names.end(), [](const QString& a, const QString& b) {
        return a.section('-', -1).toInt() < b.section('-', -1).toInt();
    });
    QList<QueuedFile> files;
    for (const QString& name : names) {
        CMessage message(bench.logs);
        message.MOpen(folder + '/' + name);
        EXPECT_EQ(message.ID, name.toLatin1());
        EXPECT_EQ(message.From, original.From);
        EXPECT_EQ(message.Data, original.Data);
        EXPECT_EQ(message.TxtEng, kEng);
        EXPECT_EQ(message.TxtFr, kFr);
        EXPECT_EQ(message.Essai, 0);
        EXPECT_FALSE(message.ForSender);
        QueuedFile file{name, {}};
        for (int index = 1; index <= message.MRcptToCount(); ++index)
            file.recipients.append(message.RcptTo(index));
        files.append(file);
    }
    return files;
}

} // namespace

TEST(ParseRcptTo, WritesOneFilePerDomainInOrderOfFirstAppearance)
{
    struct Case {
        const char* name;
        QList<QByteArray> recipients;
        QList<QList<QByteArray>> files;
    };
    const Case cases[] = {
        {"domains x, y, x",
         {"<a@x.com>", "<b@y.com>", "<c@x.com>"},
         {{"<a@x.com>", "<c@x.com>"}, {"<b@y.com>"}}},
        {"one domain, a recipient given twice",
         {"<a@x.com>", "<b@x.com>", "<a@x.com>"},
         {{"<a@x.com>", "<b@x.com>", "<a@x.com>"}}},
        {"domains compared with their case", {"<a@X.com>", "<b@x.com>"}, {{"<a@X.com>"}, {"<b@x.com>"}}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        const QString outBox = bench.path("OutBox");
        QDir().mkpath(outBox);
        const CMessage slot = Received(bench.logs, test.recipients);
        ParseRcptTo(bench.logs, slot, outBox);

        const QList<QueuedFile> files = Queued(bench, outBox, slot);
        ASSERT_EQ(files.size(), test.files.size());
        for (int k = 0; k < files.size(); ++k) {
            const QRegularExpression name(QStringLiteral("^[0-9A-F]{2,10}-%1$").arg(k + 1));
            EXPECT_TRUE(name.match(files[k].name).hasMatch()) << files[k].name.toStdString();
            EXPECT_EQ(files[k].recipients, test.files[k]);
        }
        // The slot's own message is neither written nor changed.
        EXPECT_EQ(slot.ID, QByteArray());
        EXPECT_EQ(slot.MRcptToCount(), test.recipients.size());
    }
}

TEST(ParseRcptTo, ARecipientWithoutDomainIsFatal)
{
    LogBench bench;
    const CMessage slot = Received(bench.logs, {"<a@x.com>", "<nobody>"});
    const QString report = FatalReportOf(bench, [&] { ParseRcptTo(bench.logs, slot, bench.path("")); });
    EXPECT_TRUE(report.startsWith("Where: MOD:MESSAGE[GetDomain]")) << report.toStdString();
}
