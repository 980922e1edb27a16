#include "delivery/delivery_queue.h"

#include <QFileInfo>

#include "delivery/error_trap.h"
#include "delivery/queue_folders.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"
#include "store/queue_files.h"

namespace postiq {

QString DeliveryQueue::path(const char* folder, const QString& file) const
{
    return QueueFilePath(logs_, folder, file);
}

void DeliveryQueue::remove(const QString& file) { RemoveQueueFile(path("OutBox", file)); }

void DeliveryQueue::moveTo(const char* folder, const QString& name, const CMessage& record, const QString& file)
{
    const QString target = path(folder, name);
    CMessage copy = record;
    copy.MSave(target);
    if (!file.isEmpty())
        UndoingOnFault([&] { remove(file); }, [&] { RemoveQueueFile(target); });
}

QString DeliveryQueue::freshName() { return QString::fromLatin1(FreshQueueName(logs_)); }

QString DeliveryQueue::enqueue(CMessage& record)
{
    const QString name = freshName();
    record.ID = name.toLatin1();
    record.MSave(path("OutBox", name));
    return name;
}

void DeliveryQueue::setAside(const QString& file)
{
    const QString from = path("OutBox", file);
    CopyQueueFileDurably(from, path("Error", file));
    RemoveQueueFile(from);
}

void DeliveryQueue::backToOutBox(const QString& deferredPath)
{
    const QString outBox = path("OutBox", QFileInfo(deferredPath).fileName());
    CopyQueueFileDurably(deferredPath, outBox);
    UndoingOnFault([&] { RemoveQueueFile(deferredPath); }, [&] { RemoveQueueFile(outBox); });
}

} // namespace postiq
