#include "delivery/queue_folders.h"

#include "log/logs.h"
#include "platform/program_folder.h"

namespace postiq {

QString QueueFilePath(const Logs& logs, const char* folder, const QString& file)
{
    return SubfolderPath(logs.folder(), QString::fromLatin1(folder)) + '/' + file;
}

} // namespace postiq
