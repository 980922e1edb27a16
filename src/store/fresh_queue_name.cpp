#include "store/fresh_queue_name.h"

#include <QFileInfo>
#include <QStringList>

#include "log/logs.h"
#include "platform/durable_file.h"
#include "platform/program_folder.h"
#include "store/message.h"

namespace postiq {

namespace {
// Far more than chance ever needs among nearly a million million names: reaching it means the
// draw is broken, which must not hang the program.
constexpr int kMaxDraws = 1000;
} // namespace

QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix)
{
    return FreshQueueName(logs, suffix, [&logs] { return RandomFileGet(logs); });
}

QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix, const std::function<QByteArray()>& draw)
{
    return logs.guarded("MOD:FILESYSTEM[FreshQueueName]", [&] {
        QStringList folders;
        for (const char* name : {"OutBox", "Deferred", "Error"})
            folders.append(SubfolderPath(logs.folder(), QString::fromLatin1(name)));
        const auto taken = [&folders](const QByteArray& name) {
            for (const QString& folder : folders) {
                // A name being written (staged, not yet committed) is taken as well.
                const QString path = folder + '/' + QString::fromLatin1(name);
                if (QFileInfo::exists(path) || QFileInfo::exists(StagingPathOf(path)))
                    return true;
            }
            return false;
        };
        for (int attempt = 0; attempt < kMaxDraws; ++attempt) {
            const QByteArray name = draw() + suffix;
            if (!taken(name))
                return name;
        }
        throw Fault(ErrFileAccess,
                    QStringLiteral("No free queue file name after %1 draws").arg(kMaxDraws));
    });
}

} // namespace postiq
