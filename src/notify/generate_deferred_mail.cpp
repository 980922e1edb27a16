#include "notify/generate_deferred_mail.h"

#include <QFileInfo>

#include "config/settings.h"
#include "notify/notice_text.h"
#include "platform/program_folder.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"
#include "store/queue_files.h"

namespace postiq {

CGenerateDeferredMail::CGenerateDeferredMail(Logs& logs, const Settings& settings)
    : logs_(logs), settings_(settings)
{
}

void CGenerateDeferredMail::GenerateDeferred(const QString& file)
{
    logs_.guarded("CLS:GENERATEDEFERREDMAIL[GenerateDeferred]", [&] { Generate(file); });
}

void CGenerateDeferredMail::Generate(const QString& file)
{
    {
        const QString outBox = SubfolderPath(logs_.folder(), QStringLiteral("OutBox"));
        const QString path = outBox + '/' + file;
        if (!QFileInfo(path).isFile())
            throw Fault(ErrFileNotFound, QStringLiteral("The delayed message '%1' is missing").arg(path));
        CMessage message(logs_);
        message.MLoad(path);
        const int count = message.MRcptToCount();

        NoticeText text(NoticeHostName(settings_.LocalHostName), logs_.clock());
        text.opening("Delivery Status Notification (Mail Delivery Delayed)", message.From);
        text.line("- This is NOT a error issue.");
        text.line("- This is only a notification about a delay in the delivery of your message.");
        text.line("- There is no need to resend your message at this time.");
        text.line("- The following recipients have not yet received your message:");
        for (int index = 1; index <= count; ++index)
            text.line(message.RcptTo(index) + ": " + message.LastError);
        text.line();
        text.line("- The server will continue trying for up to 1 hour.");
        text.line();
        text.line("It was the " + QByteArray::number(message.Essai) + " attempt !");
        // A fixed promise, whatever the configured number of attempts.
        text.line("I'll try again soon until 3 times");
        text.line("The error returned was:");
        text.line();
        text.line(message.LastError);
        text.line();
        text.line("For further assistance, please send mail to <postmaster>");
        text.line();
        text.line("If you do so, please include this problem report. You can");
        text.line("delete your own text from the message returned below.");
        text.line();
        text.reportPart();
        // The notice is about the sender's message as a whole, so it names the sender.
        text.line("Final-Recipient: rfc822; " + message.From);
        text.line("Action: delayed");
        text.line("Diagnostic-Code: " + message.LastError);
        text.line();
        message.Data = text.finish(message.Data);

        message.OneRcptTo();
        message.setRcptTo(1, message.From);
        message.Essai = 0;
        message.ForSender = true;
        // The notice is queued before the OutBox copy goes, so that a crash in between leaves an
        // extra notice at worst, never a lost one.
        message.ID = FreshQueueName(logs_);
        const QString notice = outBox + '/' + QString::fromLatin1(message.ID);
        message.MSave(notice);
        try {
            RemoveQueueFile(path);
        } catch (const Fault&) {
            // The delayed message stays in OutBox for the next attempt: without it gone, this
            // notice would be sent again then, so it goes.
            try {
                RemoveQueueFile(notice);
            } catch (const Fault&) {
            }
            throw;
        }
    }
}

} // namespace postiq
