#include "notify/notice.h"

#include "config/settings.h"
#include "log/dates.h"
#include "notify/notice_text.h"
#include "platform/clock.h"

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

} // namespace

CMessage BuildNotice(Logs& logs, const Settings& settings, const Clock& clock, const NoticeRequest& request)
{
    const CMessage& original = *request.original;
    const bool bounce = request.kind == NoticeKind::Bounce;
    // A bounce carries the whole message back, a delay notice only its header.
    const QByteArray returned = bounce ? original.Data : HeaderBlock(original.Data);
    const QByteArray host = NoticeHostName(settings.LocalHostName);

    NoticeText text(host, clock, returned);
    text.opening(bounce ? "Undelivered Mail Returned to Sender" : "Delivery Status Notification (Mail Delivery Delayed)",
                 original.From);
    if (bounce)
        bounceWording(text, request);
    else
        delayWording(text, request);
    statusPart(text, host, request, clock);
    if (bounce)
        text.part("Undelivered Message", "message/rfc822", hasEightBit(returned));
    else
        text.part("Undelivered Message Headers", "text/rfc822-headers", hasEightBit(returned));

    CMessage notice(logs);
    notice.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
    notice.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
    notice.ForSender = true;
    notice.From = "<>";
    notice.AddRcptTo(original.From);
    notice.Data = text.finish(returned);
    return notice;
}

} // namespace postiq
