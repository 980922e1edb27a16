#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>
#include <functional>

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

// The hidden name beside `path` that its bytes are written under before they take its name.
QString StagingPathOf(const QString& path);

// A file written whole under its staging name, not yet on disk for sure and not yet visible under
// its own name. Many staged files are made durable together, at the cost of one disk round.
struct StagedFile {
    QString staging;
    QString path;
};

// Writes `data` under the staging name of `path`, without waiting for the disk. A staging file
// already there is refused: it belongs to a write in progress.
bool StageFile(const QString& path, const QByteArray& data, StagedFile* staged, QString* error);

// Runs job(0) ... job(count - 1), several at once, and returns once every one is done.
using ForEachAtOnce = std::function<void(qsizetype count, const std::function<void(qsizetype)>& job)>;

// Makes staged files durable under their own names: every staging file saved to disk, renamed to
// its name (never over an existing file), and every folder involved saved to disk. All or nothing:
// on failure no file of the list is left, staged or renamed. Blocks: run it off the event loop.
// The files are saved to disk several at once, by `atOnce` (threads kept for it) when given, by
// threads started for the call otherwise.
bool CommitStagedFiles(const QList<StagedFile>& files, QString* error, const ForEachAtOnce& atOnce = {});

// Removes the staging files of files that will not be committed.
void DiscardStagedFiles(const QList<StagedFile>& files);

} // namespace postiq
