#pragma once

#include <QFile>
#include <QString>

namespace postiq {

// Returns once the file's written bytes are on disk (flush, then fsync). Throws Fault on failure.
void SyncFile(QFile& file);

// Returns once the folder holding `path` has its entries on disk, so that a newly created file
// survives a crash by name as well as by content. Throws Fault on failure.
void SyncFolderOf(const QString& path);

} // namespace postiq
