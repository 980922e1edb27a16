#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

namespace postiq {

// Writes that must survive a crash or a power cut. Each returns false with the reason in *error.

// Flushes the file and waits until its bytes are on disk.
bool SyncFile(QFile& file, QString* error);

// Waits until the entries of the folder holding `path` are on disk, so that a newly created or
// renamed file survives by name as well as by content.
bool SyncFolderOf(const QString& path, QString* error);

// Replaces the file at `path` with `data`: written to the hidden "." + name + ".new" beside it,
// synced, renamed over it, and the folder synced, so that a crash leaves either the old file or
// the new one, never a torn one. A new file appears whole or not at all.
bool ReplaceDurably(const QString& path, const QByteArray& data, QString* error);

} // namespace postiq
