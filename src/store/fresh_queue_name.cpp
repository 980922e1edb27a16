#include "store/fresh_queue_name.h"

#include "log/logs.h"
#include "store/message.h"
#include "store/queue.h"

namespace postiq {

QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix)
{
    return FreshQueueName(logs, suffix, [&logs] { return RandomFileGet(logs); });
}

QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix, const std::function<QByteArray()>& draw)
{
    return Queue(logs.folder()).freshName(suffix, draw);
}

} // namespace postiq
