#include "platform/folder_scan.h"

#include <QFile>

#include <dirent.h>
#include <sys/stat.h>

namespace postiq {

FolderScan::FolderScan(const QString& folder) : folder_(QFile::encodeName(folder))
{
    dir_ = ::opendir(folder_.constData());
}

FolderScan::~FolderScan()
{
    if (dir_)
        ::closedir(static_cast<DIR*>(dir_));
}

std::optional<QByteArray> FolderScan::nextFile()
{
    if (!dir_)
        return std::nullopt;
    while (const dirent* entry = ::readdir(static_cast<DIR*>(dir_))) {
        if (entry->d_name[0] == '.')
            continue;
        const QByteArray name(entry->d_name);
        bool regular = entry->d_type == DT_REG;
        if (entry->d_type == DT_UNKNOWN) { // some file systems do not say: ask
            struct stat info {};
            regular = ::lstat((folder_ + '/' + name).constData(), &info) == 0 && S_ISREG(info.st_mode);
        }
        if (regular)
            return name;
    }
    return std::nullopt;
}

} // namespace postiq
