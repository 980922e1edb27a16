#include "notify/generate_return_mail.h"

#include "config/settings.h"
#include "notify/queued_notice.h"
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
    const QString path = SubfolderPath(logs_.folder(), QStringLiteral("OutBox")) + '/' + file;
    CMessage bounce = NoticeAboutQueueFile(logs_, settings_, NoticeKind::Bounce, path);
    // Replaced in one step: the failed message or its report is always there.
    bounce.MSave(path);
}

} // namespace postiq
