#include <gtest/gtest.h>

#include <QDir>
#include <QRegularExpression>
#include <optional>

#include "store/address.h"
#include "store_test_support.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

TEST(Address, CheckEmailAndDomainOf)
{
    // No domain: a fault for the caller to handle.
    const struct { QByteArray address; bool acceptable; std::optional<QByteArray> domain; } cases[] = {
        {"<john@example.com>", true, "example.com"},
        {"<John@Example.COM>", true, "Example.COM"},
        {"<@.>", true, "."}, // empty parts are not checked
        {"john@example.com", false, "example.co"}, // no brackets: the last character goes anyway
        {"<john@example.com", false, "example.co"},
        {"<jo<hn@example.com>", false, "example.com"},
        {"<a@bc@d.e>", false, "b"}, // the piece between the two "@", less one
        {"<john@localhost>", false, "localhost"},
        {"<a@>", false, ""},
        {"<john.example.com>", false, std::nullopt},
        {"<", false, std::nullopt},
        {"", false, std::nullopt},
        {"<a@", false, std::nullopt},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.address.constData());
        EXPECT_EQ(CheckEmail(test.address), test.acceptable);
        if (test.domain)
            EXPECT_EQ(DomainOf(test.address), *test.domain);
        else
            EXPECT_THROW(DomainOf(test.address), Fault);
    }
}

TEST(Address, CheckEmailRefusesLineBreaksAndNul)
{
    for (const char forbidden : {'\r', '\n', '\0'}) {
        for (const int at : {1, 5, 10, 17}) { // local part, domain, just before ">", at the end
            QByteArray address = "<john@example.com>";
            address.insert(at, forbidden);
            SCOPED_TRACE(address.toHex().constData());
            EXPECT_FALSE(CheckEmail(address));
        }
    }
    EXPECT_FALSE(CheckEmail(QByteArray("<john@example.com>\r\n")));
}

TEST(ParseRcptTo, WritesOneFilePerDomainInOrderOfFirstAppearance)
{
    // No file at all: the fault is found before anything is written.
    const struct { const char* name; QByteArrayList recipients; QList<QByteArrayList> files; } cases[] = {
        {"domains x, y, x", {"<a@x.com>", "<b@y.com>", "<c@x.com>"}, {{"<a@x.com>", "<c@x.com>"}, {"<b@y.com>"}}},
        {"a recipient given twice", {"<a@x.com>", "<a@x.com>"}, {{"<a@x.com>", "<a@x.com>"}}},
        {"domains compared with their case", {"<a@X.com>", "<b@x.com>"}, {{"<a@X.com>"}, {"<b@x.com>"}}},
        {"a recipient without domain", {"<a@x.com>", "<nobody>"}, {}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        const QString outBox = bench.path("OutBox");
        QDir().mkpath(outBox);
        CMessage slot(bench.logs);
        slot.TxtEng = "eng";
        slot.TxtFr = "fr";
        slot.ForSender = true;
        slot.From = "<sender@home.net>";
        slot.Data = "Subject: hi\r\n\r\nbody\r\n";
        for (const QByteArray& recipient : test.recipients)
            slot.AddRcptTo(recipient);
        if (test.files.isEmpty()) {
            EXPECT_THROW(ParseRcptTo(bench.logs, slot, outBox), Fault);
            EXPECT_TRUE(bench.desktop.diagnostics.isEmpty());
        } else {
            ParseRcptTo(bench.logs, slot, outBox);
        }

        const QStringList names = QDir(outBox).entryList(QDir::Files);
        ASSERT_EQ(names.size(), test.files.size());
        for (int k = 1; k <= names.size(); ++k) {
            const qsizetype at = names.indexOf(QRegularExpression(QStringLiteral("^[0-9A-F]{2,10}-%1$").arg(k)));
            ASSERT_NE(at, -1) << "no file named with -" << k;
            CMessage queued(bench.logs);
            queued.MOpen(outBox + '/' + names[at]);
            EXPECT_EQ(queued.ID, names[at].toLatin1());
            // Everything but the ID and the recipients is the received message's.
            EXPECT_EQ(Members(queued).mid(1, 7), Members(slot).mid(1, 7));
            EXPECT_EQ(Members(queued).mid(9), test.files[k - 1]);
        }
    }
}
