#include "notify/generate_deferred_mail.h"

#include "config/settings.h"
#include "notify/queued_notice.h"
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
    const QString outBox = SubfolderPath(logs_.folder(), QStringLiteral("OutBox"));
    const QString path = outBox + '/' + file;
    CMessage notice = NoticeAboutQueueFile(logs_, settings_, NoticeKind::Delay, path);
    // The notice is queued before the OutBox copy goes, so that a crash in between leaves an
    // extra notice at worst, never a lost one.
    notice.ID = FreshQueueName(logs_);
    const QString noticePath = outBox + '/' + QString::fromLatin1(notice.ID);
    notice.MSave(noticePath);
    try {
        RemoveQueueFile(path);
    } catch (const Fault&) {
        // The delayed message stays in OutBox for the next attempt: without it gone, this
        // notice would be sent again then, so it goes.
        try {
            RemoveQueueFile(noticePath);
        } catch (const Fault&) {
        }
        throw;
    }
}

} // namespace postiq
