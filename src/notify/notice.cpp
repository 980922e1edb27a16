#include "notify/notice.h"

#include "config/settings.h"
#include "log/dates.h"
#include "notify/notice_text.h"
#include "platform/clock.h"
#include "store/queue_text_reader.h"

namespace postiq {

namespace {

bool hasEightBit(const QByteArray& text)
{
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return true;
    }
    return false;
}

// "<c@d.example>" as a status field names it: the bare address.
QByteArray bareAddress(const QByteArray& address)
{
    QByteArray bare = address.trimmed();
    if (bare.startsWith('<') && bare.endsWith('>'))
        bare = bare.mid(1, bare.size() - 2);
    return PrintableText(bare).replace("\r\n", "");
}

void assistance(NoticeText& text)
{
    text.line("For further assistance, please send mail to <postmaster>");
    text.line();
    text.line("If you do so, please include this problem report. You can");
    text.line("delete your own text from the message returned below.");
    text.line();
}

void bounceWording(NoticeText& text, const NoticeRequest& request)
{
    text.line("I'm sorry to have to inform you that the message returned");
    text.line("below could not be delivered to one or more destinations.");
    text.line();
    assistance(text);
    text.line(QByteArray(12, ' ') + "The Postiq program");
    text.line();
    for (const RecipientFate& fate : request.recipients)
        text.line(PrintableText(fate.address + ": " + fate.diagnostic));
    text.line();
}

void delayWording(NoticeText& text, const NoticeRequest& request)
{
    const CMessage& original = *request.original;
    text.line("- This is NOT a error issue.");
    text.line("- This is only a notification about a delay in the delivery of your message.");
    text.line("- There is no need to resend your message at this time.");
    text.line("- The following recipients have not yet received your message:");
    for (const RecipientFate& fate : request.recipients)
        text.line(PrintableText(fate.address + ": " + fate.diagnostic));
    text.line();
    text.line("- The server will continue trying for up to 1 hour.");
    text.line();
    text.line("It was the " + QByteArray::number(original.Essai) + " attempt !");
    // A fixed promise, whatever the configured number of attempts.
    text.line("I'll try again soon until 3 times");
    text.line("The error returned was:");
    text.line();
    const QByteArray error = !original.LastError.isEmpty() || request.recipients.isEmpty()
        ? original.LastError
        : request.recipients.first().diagnostic;
    text.line(PrintableText(error));
    text.line();
    assistance(text);
}

// The machine-readable part: the message's fields, then one block per recipient.
void statusPart(NoticeText& text, const QByteArray& host, const NoticeRequest& request, const Clock& clock)
{
    text.part("Delivery error report", "message/delivery-status");
    text.line("Reporting-MTA: dns; " + host);
    text.line("Arrival-Date: " + Rfc5322Date(request.arrival.isValid() ? request.arrival : clock.now()));
    const QByteArray action = request.kind == NoticeKind::Bounce ? "Action: failed" : "Action: delayed";
    for (const RecipientFate& fate : request.recipients) {
        text.line();
        text.line("Final-Recipient: rfc822; " + bareAddress(fate.address));
        text.line(action);
        text.line("Status: " + FieldValue(fate.status));
        if (!fate.remoteMta.isEmpty())
            text.line("Remote-MTA: dns; " + FieldValue(fate.remoteMta));
        text.line("Diagnostic-Code: smtp; " + FieldValue(fate.diagnostic));
    }
    text.line();
}

// The envelope of a notice: from the null sender to the original's sender, marked as a notice.
CMessage noticeEnvelope(Logs& logs, const CMessage& original)
{
    CMessage notice(logs);
    notice.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
    notice.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
    notice.ForSender = true;
    notice.From = "<>";
    notice.AddRcptTo(original.From);
    return notice;
}

// Everything of the notice's text before what it returns of the original.
void composeNotice(NoticeText& text, const QByteArray& host, const NoticeRequest& request, const Clock& clock,
                   bool eightBit)
{
    const CMessage& original = *request.original;
    const bool bounce = request.kind == NoticeKind::Bounce;
    text.opening(bounce ? "Undelivered Mail Returned to Sender" : "Delivery Status Notification (Mail Delivery Delayed)",
                 original.From);
    if (bounce)
        bounceWording(text, request);
    else
        delayWording(text, request);
    statusPart(text, host, request, clock);
    if (bounce)
        text.part("Undelivered Message", "message/rfc822", eightBit);
    else
        text.part("Undelivered Message Headers", "text/rfc822-headers", eightBit);
}

// How much of the original a delay notice reads at most to find the end of its header; a header
// longer than this is returned cut there.
constexpr qint64 kHeaderLimit = 1024 * 1024;
constexpr qint64 kChunk = 256 * 1024;

// The header block of the queued text, read a chunk at a time until its end is found.
QByteArray queuedHeader(QueueTextReader& reader)
{
    QByteArray read;
    while (!reader.atEnd() && read.size() < kHeaderLimit) {
        read += reader.read(kChunk);
        if (read.startsWith('\n') || read.startsWith("\r\n") || read.contains("\r\n\r\n") || read.contains("\n\n"))
            break;
    }
    return HeaderBlock(read);
}

// Whether `what` occurs in the queued text, looked for a chunk at a time (each chunk with the end
// of the one before, so that nothing is missed across their border).
bool occursInQueued(QueueTextReader& reader, const QByteArray& what)
{
    reader.rewind();
    QByteArray tail;
    while (!reader.atEnd()) {
        const QByteArray window = tail + reader.read(kChunk);
        if (window.contains(what))
            return true;
        tail = window.right(what.size() - 1);
    }
    return false;
}

bool queuedHasEightBit(QueueTextReader& reader)
{
    reader.rewind();
    while (!reader.atEnd()) {
        if (hasEightBit(reader.read(kChunk)))
            return true;
    }
    return false;
}

} // namespace

CMessage BuildNotice(Logs& logs, const Settings& settings, const Clock& clock, const NoticeRequest& request)
{
    const CMessage& original = *request.original;
    // A bounce carries the whole message back, a delay notice only its header.
    const QByteArray returned = request.kind == NoticeKind::Bounce ? original.Data : HeaderBlock(original.Data);
    const QByteArray host = NoticeHostName(settings.LocalHostName);
    NoticeText text(host, clock, returned);
    composeNotice(text, host, request, clock, hasEightBit(returned));
    CMessage notice = noticeEnvelope(logs, original);
    notice.Data = text.finish(returned);
    return notice;
}

QByteArray QueueNotice(const Queue& queue, Logs& logs, const Settings& settings, const Clock& clock,
                       const NoticeRequest& request, QueueFolder folder, const QByteArray& name)
{
    CMessage head(logs);
    QueueTextReader reader(queue, folder, name, head);
    const QByteArray host = NoticeHostName(settings.LocalHostName);
    std::unique_ptr<QueueWriter> writer = queue.open(noticeEnvelope(logs, *request.original));
    if (request.kind == NoticeKind::Delay) {
        const QByteArray returned = queuedHeader(reader);
        NoticeText text(host, clock, returned);
        composeNotice(text, host, request, clock, hasEightBit(returned));
        writer->append(text.finish(returned));
    } else {
        const bool eightBit = queuedHasEightBit(reader);
        NoticeText text(host, clock, [&reader](const QByteArray& boundary) { return occursInQueued(reader, boundary); });
        composeNotice(text, host, request, clock, eightBit);
        writer->append(text.text());
        reader.rewind();
        while (!reader.atEnd())
            writer->append(reader.read(kChunk));
        writer->append(text.closing());
    }
    writer->commit();
    return writer->name();
}

} // namespace postiq
