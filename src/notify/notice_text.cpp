#include "notify/notice_text.h"

#include <QRandomGenerator>
#include <QString>

#include "log/dates.h"
#include "log/version.h"

namespace postiq {

namespace {

const QByteArray kCrLf = "\r\n";

// Sixteen hexadecimal digits that no other notice shares.
QByteArray uniqueToken()
{
    return QByteArray::number(QRandomGenerator::system()->generate64(), 16).rightJustified(16, '0');
}

bool hostByte(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.'
        || c == '_';
}

} // namespace

QByteArray NoticeHostName(const QString& localHostName)
{
    QByteArray host;
    for (const char c : localHostName.toUtf8()) {
        if (hostByte(c))
            host += c;
    }
    return host.isEmpty() ? QByteArray("localhost") : host;
}

QByteArray PrintableText(const QByteArray& text)
{
    QByteArray out;
    out.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r' || c == '\n') {
            out += kCrLf;
            if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
                ++i;
        } else if (c == '\t' || (c >= 0x20 && c < 0x7F)) {
            out += c;
        } else {
            out += '?';
        }
    }
    return out;
}

QByteArray FieldValue(const QByteArray& text)
{
    QByteArrayList lines;
    for (const QByteArray& line : PrintableText(text).split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (!trimmed.isEmpty())
            lines += trimmed;
    }
    return lines.join(kCrLf + ' ');
}

QByteArray HeaderBlock(const QByteArray& data)
{
    if (data.startsWith(kCrLf) || data.startsWith('\n'))
        return {}; // no header at all
    qsizetype end = data.indexOf("\r\n\r\n");
    if (end >= 0)
        return data.left(end + 2);
    end = data.indexOf("\n\n");
    if (end >= 0)
        return data.left(end + 1);
    return data;
}

NoticeText::NoticeText(const QByteArray& host, const Clock& clock, const QByteArray& returned)
    : NoticeText(host, clock, [&returned](const QByteArray& boundary) { return returned.contains(boundary); })
{
}

NoticeText::NoticeText(const QByteArray& host, const Clock& clock,
                       const std::function<bool(const QByteArray&)>& occursIn)
    : host_(host), clock_(clock)
{
    // A boundary must not occur in what it encloses; a 64-bit draw all but never does.
    do
        boundary_ = "=_Postiq_" + uniqueToken();
    while (occursIn(boundary_));
}

void NoticeText::line(const QByteArray& text) { text_ += text + kCrLf; }

void NoticeText::part(const QByteArray& description, const QByteArray& type, bool eightBit)
{
    if (!text_.endsWith(kCrLf))
        line(); // the boundary starts a line of its own
    line("--" + boundary_);
    line("Content-Description: " + description);
    line("Content-Type: " + type);
    if (eightBit)
        line("Content-Transfer-Encoding: 8bit");
    line();
}

void NoticeText::opening(const QByteArray& subject, const QByteArray& to)
{
    line("Date: " + Rfc5322Date(clock_));
    line("From: MAILER-DAEMON@" + host_ + " (Mail Delivery System)");
    line("To: " + to);
    line("Subject: " + subject);
    line("Message-ID: <" + SerialDate(clock_) + '.' + uniqueToken() + '@' + host_ + '>');
    line("MIME-Version: 1.0");
    // Automatic replies must not answer this one.
    line("Auto-Submitted: auto-replied");
    line("Content-Type: multipart/report; report-type=delivery-status;");
    line("\tboundary=\"" + boundary_ + '"');
    line("X-Mailer: Postiq " + AppVersion().toLatin1() + " (" + kProductWeb.address + ")");
    line();
    line("This is a MIME-encapsulated message.");
    line();
    part("Notification", "text/plain; charset=us-ascii");
    line("This is the Postiq program at host " + host_ + ".");
    line();
}

QByteArray NoticeText::finish(const QByteArray& returned)
{
    // The line break before the closing boundary belongs to the boundary: the part holds exactly
    // the returned text.
    text_ += returned + closing();
    return text_;
}

QByteArray NoticeText::closing() const { return kCrLf + "--" + boundary_ + "--" + kCrLf; }

} // namespace postiq
