#include "notify/notice_text.h"

#include <QString>

#include "log/version.h"
#include "log/dates.h"

namespace postiq {

namespace {
const QByteArray kCrLf = "\r\n";
// The zone is not looked up: notices always claim this one.
const QByteArray kZone = " +0200";
} // namespace

QByteArray NoticeHostName(const QString& localHostName)
{
    return QString(localHostName).remove(QChar(u'\0')).toUtf8();
}

NoticeText::NoticeText(const QByteArray& localHostName, const Clock& clock)
    : host_(localHostName), boundary_("B36A337F60.1076950585/" + localHostName), clock_(clock)
{
}

void NoticeText::line(const QByteArray& text) { text_ += text + kCrLf; }

void NoticeText::partHeader(const QByteArray& description, const QByteArray& type)
{
    line("--" + boundary_);
    line("Content-Description: " + description);
    line("Content-Type: " + type);
    line();
}

void NoticeText::opening(const QByteArray& subject, const QByteArray& to)
{
    line("From: MAILER-DAEMON@" + host_ + " (Mail Delivery System)");
    line("Subject: " + subject);
    line("To: " + to);
    line("MIME-Version: 1.0");
    line("Content-Type: multipart/report; report-type=delivery-status;");
    // The quote is never closed; mail readers have always accepted the line as it is.
    line("\tboundary = \"" + boundary_);
    line("Message-Id: <" + SerialDate(clock_) + ".E469037F67@" + host_ + ">");
    line("X-Priority: 3 (Normal)");
    line("X-MSMail-Priority: Normal");
    line("X-Mailer: Postiq " + AppVersion().toLatin1() + " (" + kProductWeb.address + ")");
    line("Importance: Normal");
    line();
    line("This is a MIME-encapsulated message.");
    line();
    partHeader("Notification", "text/plain");
    line("This is the Postiq program at host " + host_ + ".");
    line();
}

void NoticeText::reportPart()
{
    partHeader("Delivery error report", "message/delivery-status");
    line("Reporting-MTA: " + host_);
    // The time the notice is made: the message's own arrival is not kept.
    line("Arrival-Date: " + GMTDate(clock_) + kZone);
    line();
}

QByteArray NoticeText::finish(const QByteArray& returnedData)
{
    partHeader("Undelivered Message", "message/rfc822");
    line(returnedData);
    line("--" + boundary_ + "--");
    return text_;
}

} // namespace postiq
