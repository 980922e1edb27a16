#include "notify/generate_return_mail.h"

#include <QFileInfo>

#include "config/settings.h"
#include "notify/notice_text.h"
#include "platform/program_folder.h"
#include "store/message.h"

namespace postiq {

CGenerateReturnMail::CGenerateReturnMail(Logs& logs, const Settings& settings)
    : logs_(logs), settings_(settings)
{
}

void CGenerateReturnMail::GenerateError(const QString& file)
{
    logs_.guarded("CLS:CLASS[GenerateError]", [&] { Generate(file); });
}

void CGenerateReturnMail::Generate(const QString& file)
{
    {
        const QString path = SubfolderPath(logs_.folder(), QStringLiteral("OutBox")) + '/' + file;
        if (!QFileInfo(path).isFile())
            throw Fault(ErrFileNotFound, QStringLiteral("The failed message '%1' is missing").arg(path));
        CMessage message(logs_);
        message.MLoad(path);
        const int count = message.MRcptToCount();
        // The recipient counter is one byte and steps once past the last recipient: with as many
        // recipients as a record holds it overflows, and the failed file is left as it is.
        if (count == 255)
            throw Fault(ErrOverflow,
                        QStringLiteral("Too many recipients (%1) to return '%2'").arg(count).arg(path));

        NoticeText text(NoticeHostName(settings_.LocalHostName), logs_.clock());
        text.opening("Undelivered Mail Returned to Sender", message.From);
        text.line("I'm sorry to have to inform you that the message returned");
        text.line("below could not be delivered to one or more destinations.");
        text.line();
        text.line("For further assistance, please send mail to <postmaster>");
        text.line();
        text.line("If you do so, please include this problem report. You can");
        text.line("delete your own text from the message returned below.");
        text.line();
        text.line(QByteArray(12, ' ') + "The Postiq program");
        text.line();
        for (int index = 1; index <= count; ++index)
            text.line(message.RcptTo(index) + ": " + message.LastError);
        text.line();
        text.reportPart();
        for (int index = 1; index <= count; ++index)
            text.line("Final-Recipient: rfc822; " + message.RcptTo(index));
        text.line("Action: failed");
        text.line("Diagnostic-Code: " + message.LastError);
        text.line();
        message.Data = text.finish(message.Data);

        // The first recipient becomes the sender, who also stays the envelope sender; the other
        // recipient entries are left as they were.
        message.setRcptTo(1, message.From);
        message.Essai = 0;
        message.ForSender = true;
        // Replaced in one step: the failed message or its report is always there.
        message.MSave(path);
    }
}

} // namespace postiq
