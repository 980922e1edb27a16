#include <gtest/gtest.h>

#include "core/local_submission.h"
#include "core/sendmail.h"

using namespace postiq;

namespace {

SubmissionRequest request(const QByteArray& input, QByteArrayList recipients = {})
{
    SubmissionRequest r;
    r.input = input;
    r.recipients = std::move(recipients);
    r.login = "alice";
    r.hostName = "box.example";
    r.date = "Mon, 23 Nov 2026 22:00:00 +0000";
    r.id = "A1B2C3";
    r.messageId = "20261123220000.FFEE";
    return r;
}

QByteArray prepared(const SubmissionRequest& r, Submission* out = nullptr)
{
    Submission submission;
    QString error;
    EXPECT_EQ(PrepareSubmission(r, &submission, &error), SubmissionProblem::None) << error.toStdString();
    if (out)
        *out = submission;
    return submission.data;
}

const QByteArray kAdded = "Received: by box.example (Postiq) id A1B2C3; Mon, 23 Nov 2026 22:00:00 +0000\r\n";

} // namespace

TEST(LocalSubmission, ALineWithoutHeaderGetsOneAndBareLineEndsBecomeCrLf)
{
    Submission s;
    EXPECT_EQ(prepared(request("backup done: 3 files\nno: errors\n", {"root"}), &s),
              kAdded + "From: alice@box.example\r\nDate: Mon, 23 Nov 2026 22:00:00 +0000\r\n"
                       "Message-ID: <20261123220000.FFEE@box.example>\r\n\r\nbackup done: 3 files\r\nno: errors\r\n");
    EXPECT_EQ(s.sender, QByteArray("<alice@box.example>"));
    EXPECT_EQ(s.recipients, QByteArrayList{"<root@box.example>"});

    // A header that has them keeps its own; the body is separated by its blank line, CR LF or not.
    const QByteArray own = "From: Bob <bob@x.org>\r\nDate: Sun, 1 Nov 2026 10:00:00 +0100\nMessage-Id: <m@x>\n"
                           "Subject: a long\n  folded subject\n\nbody\r\n";
    EXPECT_EQ(prepared(request(own, {"Carol@Y.org"}), &s),
              kAdded + "From: Bob <bob@x.org>\r\nDate: Sun, 1 Nov 2026 10:00:00 +0100\r\nMessage-Id: <m@x>\r\n"
                       "Subject: a long\r\n  folded subject\r\n\r\nbody\r\n");
    EXPECT_EQ(s.recipients, QByteArrayList{"<carol@y.org>"});
}

// The queue holds the message itself: the dots are doubled only on the wire, when it is sent.
TEST(LocalSubmission, DotsEndTheInputOnlyWithoutDashIAndAreKeptAsWritten)
{
    const QByteArray input = "Subject: x\n\n.leading dot\n.\nafter the dot\n";
    SubmissionRequest r = request(input, {"a@x.org"});
    EXPECT_TRUE(prepared(r).endsWith("\r\n\r\n.leading dot\r\n"));
    r.dotEnds = false; // -i
    EXPECT_TRUE(prepared(r).endsWith("\r\n\r\n.leading dot\r\n.\r\nafter the dot\r\n"));
}

TEST(LocalSubmission, DashTTakesToCcAndBccAndDropsBcc)
{
    SubmissionRequest r = request("To: Ann <Ann@X.org>, \"Doe, John\" <jd@y.org>\nCc: grp: c1@z.org, c2@z.org;\n"
                                  "Bcc: hidden@w.org\n (a comment)\nSubject: s\n\nhi\n",
                                  {"extra@v.org"});
    r.recipientsFromHeaders = true;
    r.fullName = "Alice Q. User";
    r.sender = "Alice <Alice@Box.Example>";
    Submission s;
    const QByteArray data = prepared(r, &s);
    EXPECT_EQ(s.recipients, (QByteArrayList{"<extra@v.org>", "<ann@x.org>", "<jd@y.org>", "<c1@z.org>", "<c2@z.org>",
                                            "<hidden@w.org>"}));
    EXPECT_FALSE(data.contains("hidden")) << data.constData();
    EXPECT_FALSE(data.contains("(a comment)"));
    EXPECT_TRUE(data.contains("\r\nFrom: \"Alice Q. User\" <alice@box.example>\r\n")) << data.constData();
    EXPECT_EQ(s.sender, QByteArray("<alice@box.example>"));
}

TEST(LocalSubmission, ProblemsAreNamed)
{
    Submission s;
    QString error;
    EXPECT_EQ(PrepareSubmission(request("Subject: none\n\nx\n"), &s, &error), SubmissionProblem::NoRecipient);
    SubmissionRequest r = request("To: nobody\n\nx\n");
    EXPECT_EQ(PrepareSubmission(request("x\n", {"a@b@c"}), &s, &error), SubmissionProblem::BadAddress);
    EXPECT_EQ(PrepareSubmission(request("x\n", {"<a\r\nRCPT TO:<b@c>"}), &s, &error), SubmissionProblem::BadAddress);
    r = request("x\n", {"a@x.org"});
    r.sender = "<>"; // a null sender is allowed, the From is the user
    EXPECT_EQ(PrepareSubmission(r, &s, &error), SubmissionProblem::None);
    EXPECT_EQ(s.sender, QByteArray("<>"));
    EXPECT_TRUE(s.data.contains("From: alice@box.example\r\n"));
}

TEST(SendmailOptions, CommonOptionsAreTakenAndHarmlessOnesIgnored)
{
    const SendmailOptions o = ParseSendmailOptions(
        {"-t", "-oi", "-f", "me@x.org", "-FMy Name", "-oem", "-oee", "-odi", "-odb", "-oQ/var/spool", "-B8BITMIME",
         "-N", "never", "-Rhdrs", "-v", "--folder=/tmp/q", "a@x.org", "--", "-odd@x.org"});
    EXPECT_TRUE(o.error.isEmpty()) << o.error.toStdString();
    EXPECT_TRUE(o.recipientsFromHeaders);
    EXPECT_FALSE(o.dotEnds);
    EXPECT_TRUE(o.verbose);
    EXPECT_EQ(o.sender, QByteArray("me@x.org"));
    EXPECT_EQ(o.fullName, QByteArray("My Name"));
    EXPECT_EQ(o.folder, QString("/tmp/q"));
    EXPECT_EQ(o.recipients, (QByteArrayList{"a@x.org", "-odd@x.org"}));
    EXPECT_TRUE(ParseSendmailOptions({"-i", "-r", "x@y.z"}).error.isEmpty());
    EXPECT_TRUE(ParseSendmailOptions({"-bp"}).listQueue);

    for (const QStringList& bad : {QStringList{"-bs"}, QStringList{"-q"}, QStringList{"-f"}, QStringList{"--folder"}})
        EXPECT_FALSE(ParseSendmailOptions(bad).error.isEmpty()) << bad.join(' ').toStdString();
}
