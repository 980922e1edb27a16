#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QDateTime>
#include <QList>
#include <QSet>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "log/fault.h"
#include "platform/durable_file.h"
#include "store/queue_index.h"

namespace postiq {

class CMessage;
class QueueWriter;

// The three folders a message lives in, in the order a listing shows them.
enum class QueueFolder { OutBox, Deferred, Error };
inline constexpr QueueFolder kQueueFolders[] = {QueueFolder::OutBox, QueueFolder::Deferred, QueueFolder::Error};

// A queue operation that failed; nothing was changed by it. `diskFull` tells a full disk (or quota),
// which passes with time, from everything else.
class QueueFault : public Fault {
public:
    QueueFault(int number, const QString& description, bool diskFull = false)
        : Fault(number, description), diskFull_(diskFull)
    {
    }
    bool diskFull() const { return diskFull_; }

private:
    bool diskFull_;
};

// One queued file as a listing shows it.
struct QueueEntry {
    QueueFolder folder = QueueFolder::OutBox;
    QByteArray name;
    qint64 size = 0;
    QDateTime modified;
};

// What a change did to one queued file.
enum class QueueChange { Added, Removed, Rewritten };
// Told of a change once it is durable: a move is a Removed from one folder and an Added to another.
using QueueObserver = std::function<void(QueueFolder folder, const QByteArray& name, QueueChange change)>;

// What the start-up cleanup found.
struct QueueLeftovers {
    int stagingFiles = 0; // hidden files of writes that never finished, removed
    int duplicates = 0;   // second copies of a message left by a cut move, removed
};

// The queue of a program folder: OutBox, Deferred and Error, each found whatever the letter case
// of its name. It is the only code that builds a queue path or moves a queue file, and every
// change it makes survives a crash: a new file is written under a hidden staging name, saved to
// disk and renamed (never over another file) before its folder is saved too; a move writes the
// copy durably before the original goes, and takes the copy back when the original cannot go, so
// a message is always in one folder (for an instant in two, never in none). A file's name is its
// message ID. Operations that fail throw QueueFault and leave the queue as it was.
//
// Besides the files, the queue keeps which names are taken by a delivery in progress (claim), so
// that the commands of the command line do not delete a message under a running delivery, and an
// index of OutBox and Deferred in memory (built by the start's scan, or when first asked, then
// kept by the queue's own changes), so that the next message to send and the next deferred file to fall due
// are found at once however many files wait.
//
// A move or rewrite never needs the text in memory: the caller gives the record's fields before
// the text, and the text is carried over from the existing file in chunks.
class Queue {
public:
    explicit Queue(QString programFolder);
    ~Queue();

    const QString& programFolder() const { return programFolder_; }
    static QByteArray folderName(QueueFolder folder);
    QString folderPath(QueueFolder folder) const;
    QString filePath(QueueFolder folder, const QByteArray& name) const;
    // Creates the missing folders, in the order OutBox, Deferred, Error; returns those created.
    QList<QueueFolder> createMissingFolders() const;

    // A name that no file of the three folders holds, written or being written: the random draw
    // (RandomFileGet by default) + suffix.
    QByteArray freshName(const QByteArray& suffix = {},
                         const std::function<QByteArray()>& draw = {}) const;
    // The folder holding the name, if any.
    std::optional<QueueFolder> find(const QByteArray& name) const;

    // The files of one folder, or of all three, in the directory's order; hidden staging files
    // and subfolders are not messages.
    QList<QueueEntry> list(QueueFolder folder) const;
    QList<QueueEntry> listAll() const;
    // The first file of the folder for which `skip` says false: OutBox in the order files came,
    // Deferred earliest deferral first, both from the index; Error from the directory.
    std::optional<QByteArray> next(QueueFolder folder,
                                   const std::function<bool(const QByteArray&)>& skip = {}) const;
    // OutBox's next file from a place an earlier walk reached (see QueueIndex::nextOutBoxFrom).
    std::optional<QByteArray> nextInOutBox(quint64& place, const std::function<bool(const QByteArray&)>& skip) const
    {
        return index().nextOutBoxFrom(place, skip);
    }
    // Whether OutBox holds the name, as far as the index knows.
    bool inOutBox(const QByteArray& name) const { return index().inOutBox(name); }
    // When the earliest deferred file was deferred (its file's time), if any file is deferred.
    std::optional<QDateTime> earliestDeferral() const;
    // Brings the index of OutBox in line with the folder, for files that another process (a
    // sendmail run by another user, a mail program's drop) put there or took away; observers are
    // told of each. Costs one listing of OutBox's names.
    void rescanOutBox() const;

    // ---- new messages, always into OutBox ----
    // Splits the message into one file per recipient domain (in order of first appearance, names
    // with "-1", "-2"...; a single domain keeps one plain name), writes each under its staging name
    // and returns them, not yet durable: CommitStagedFiles makes a group of them visible at once.
    QList<StagedFile> stage(const CMessage& message) const;
    // The same, made durable before it returns: all the files or none. Returns the new IDs. With a
    // `group` name (from freshGroupName) the files are named after it instead of drawn apart.
    QByteArrayList enqueue(const CMessage& message, const QByteArray& group = {}) const;
    // A name free for a message split into `parts` files: itself, or each name + "-k".
    QByteArray freshGroupName(int parts) const;
    // The number of files a message makes: one per recipient domain (at least one).
    static int partsOf(const CMessage& message);
    // A streamed message once its text is complete, ready for a group commit: the writer's own
    // file when its recipients are in one domain; otherwise one file per domain, each copied from
    // the writer's file in chunks (never whole in memory), and the writer's file removed. All or
    // nothing: on a fault no file of the message is left.
    QList<StagedFile> stageWritten(std::unique_ptr<QueueWriter> writer, const CMessage& envelope) const;
    // A writer for one new message whose text is streamed (see QueueWriter).
    std::unique_ptr<QueueWriter> open(const CMessage& envelope, const QByteArray& suffix = {},
                                      const QByteArray& name = {}) const;

    // ---- reading ----
    // Loads the whole record; a missing or unreadable file is a QueueFault (ErrFileNotFound when
    // it is not there).
    void read(QueueFolder folder, const QByteArray& name, CMessage& into) const;
    // The record without its text, and the text's size.
    qint64 readHead(QueueFolder folder, const QByteArray& name, CMessage& into) const;

    // ---- moves; `updated`, when given, gives the fields before the text written at the
    // destination (its Data is not used: the text is copied from the file, in chunks) ----
    void move(QueueFolder from, QueueFolder to, const QByteArray& name, const CMessage* updated = nullptr) const;
    // OutBox -> Deferred; the file's time becomes the deferral time.
    void defer(const QByteArray& name, const CMessage* updated = nullptr) const { move(QueueFolder::OutBox, QueueFolder::Deferred, name, updated); }
    void moveToError(QueueFolder from, const QByteArray& name, const CMessage* updated = nullptr) const { move(from, QueueFolder::Error, name, updated); }
    void backToOutBox(QueueFolder from, const QByteArray& name) const { move(from, QueueFolder::OutBox, name); }
    // Every deferred file (or only those deferred more than `olderThanSeconds` ago) back to OutBox.
    // A file that cannot move stays where it was and is named in *errors; the others go on.
    int returnDeferred(std::optional<qint64> olderThanSeconds, const QDateTime& now,
                       QStringList* errors = nullptr) const;
    // Replaces the fields before the text in place; the text stays as it is.
    void rewrite(QueueFolder folder, const QByteArray& name, const CMessage& head) const;
    // A new file in `to`, under a fresh name (returned, and written as its ID), with the fields of
    // `head` and the text of the file `name` in `from`, which stays as it is.
    QByteArray derive(QueueFolder from, const QByteArray& name, QueueFolder to, const CMessage& head) const;
    void remove(QueueFolder folder, const QByteArray& name) const;
    // Removes a message that has been delivered, without saving its folder to disk: a removal
    // that a crash takes back only sends the message a second time, it never loses one, and the
    // folder's flush cost as much as the delivery itself. A file already gone is no fault.
    void removeDelivered(QueueFolder folder, const QByteArray& name) const;

    // ---- deliveries in progress (in memory only) ----
    bool claim(const QByteArray& name);   // false when already claimed
    void release(const QByteArray& name);
    bool claimed(const QByteArray& name) const { return claims_.contains(name); }

    // At start-up, before anything else touches the queue: removes the staging files that no live
    // process is writing (they were never acknowledged) and keeps one copy of a message found in
    // two folders (the one written last, which is the move's destination; OutBox on a tie). The
    // same scan builds the index.
    QueueLeftovers clearLeftovers() const;

    // ---- watching (a queue window, the in-memory index) ----
    // Every change made through this object is told to each observer, in the order they were added.
    int addObserver(QueueObserver observer);
    void removeObserver(int id);
    // For files made visible outside the queue's own calls (a group commit of staged files).
    void announce(QueueFolder folder, const QByteArray& name, QueueChange change) const;

private:
    // The per-domain files of a message, written and finished but not committed.
    std::vector<std::unique_ptr<QueueWriter>> split(const CMessage& message, const QByteArray& group) const;
    // The index, built from one scan of OutBox and Deferred the first time it is needed.
    QueueIndex& index() const;
    void updateIndex(QueueFolder folder, const QByteArray& name, QueueChange change) const;
    // A file that the index holds but the disk no longer does (taken by another process).
    void forgetIfGone(QueueFolder folder, const QByteArray& name) const;
    [[noreturn]] void noMessage(QueueFolder folder, const QByteArray& name) const;

    QString programFolder_;
    mutable std::optional<QueueIndex> index_;
    QSet<QByteArray> claims_;
    std::vector<std::pair<int, QueueObserver>> observers_;
    int lastObserver_ = 0;
};

// One new message being written into OutBox under its hidden staging name, locked so that no
// cleanup takes it for a leftover; its text is streamed through a small buffer, so that a message
// of any size costs little memory. Nothing is visible under its own name before commit(); a
// writer dropped before then removes what it wrote. Failures throw QueueFault.
class QueueWriter {
public:
    ~QueueWriter();
    QueueWriter(const QueueWriter&) = delete;
    QueueWriter& operator=(const QueueWriter&) = delete;

    const QByteArray& name() const { return name_; }
    void append(const QByteArray& text);
    qint64 textSize() const { return textSize_; }
    // Completes the record: the file is whole but still hidden.
    void finish();
    StagedFile staged() const { return StagedFile{stagingPath_, path_}; }
    // finish() if needed, then saved to disk and renamed to its name, the folder saved too.
    void commit();
    void discard();

private:
    friend class Queue;
    QueueWriter(const QString& path, const QByteArray& name, const CMessage& envelope);
    void flushBuffer();
    [[noreturn]] void fail(const QString& what, int number);

    QString path_;
    QString stagingPath_;
    QByteArray name_;
    const Queue* queue_ = nullptr; // told of the commit
    struct File;
    std::unique_ptr<File> file_;
    QByteArray buffer_;
    qint64 countOffset_ = 0;
    qint64 textSize_ = 0;
    bool finished_ = false;
    bool committed_ = false;
};

} // namespace postiq
