#include "store/queue_text_reader.h"

#include <QFileInfo>
#include <algorithm>

#include "store/message.h"
#include "store/queue_file_format.h"

namespace postiq {

QueueTextReader::QueueTextReader(const Queue& queue, QueueFolder folder, const QByteArray& name, CMessage& head)
    : file_(queue.filePath(folder, name))
{
    if (!file_.open(QIODevice::ReadOnly))
        throw QueueFault(QFileInfo::exists(file_.fileName()) ? ErrFileAccess : ErrFileNotFound,
                         QStringLiteral("Cannot open '%1': %2").arg(file_.fileName(), file_.errorString()));
    try {
        size_ = ReadQueueRecordHead(file_, head);
    } catch (const Fault& fault) { // a torn or foreign file
        throw QueueFault(fault.number(), QStringLiteral("'%1': %2").arg(file_.fileName(), fault.description()));
    }
    start_ = file_.pos();
}

QByteArray QueueTextReader::read(qint64 max)
{
    if (atEnd() || max <= 0)
        return {};
    const QByteArray chunk = file_.read(std::min(max, left()));
    if (chunk.isEmpty()) // the file shrank under us
        throw QueueFault(ErrPastEndOfFile, QStringLiteral("'%1' ends inside its text").arg(file_.fileName()));
    done_ += chunk.size();
    return chunk;
}

void QueueTextReader::rewind()
{
    file_.seek(start_);
    done_ = 0;
}

} // namespace postiq
