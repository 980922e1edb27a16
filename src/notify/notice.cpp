#include "notify/notice.h"

#include "config/settings.h"
#include "notify/notice_text.h"

namespace postiq {

CMessage BuildNotice(Logs& logs, const Settings& settings, const Clock& clock, const NoticeRequest& request)
{
    const CMessage& original = *request.original;
    const bool bounce = request.kind == NoticeKind::Bounce;
    NoticeText text(NoticeHostName(settings.LocalHostName), clock);
    text.opening(bounce ? "Undelivered Mail Returned to Sender" : "Delayed Mail (still being retried)", original.From);
    for (const RecipientFate& fate : request.recipients)
        text.line(fate.address + ": " + fate.diagnostic);
    text.line();
    text.reportPart();
    for (const RecipientFate& fate : request.recipients) {
        text.line("Final-Recipient: rfc822; " + fate.address);
        text.line(bounce ? "Action: failed" : "Action: delayed");
        text.line("Status: " + fate.status);
        text.line();
    }

    CMessage notice(logs);
    notice.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
    notice.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
    notice.ForSender = true;
    notice.From = "<>";
    notice.AddRcptTo(original.From);
    notice.Data = text.finish(original.Data);
    return notice;
}

} // namespace postiq
