#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QThreadPool>
#include <functional>
#include <utility>

#include "platform/durable_file.h"

namespace postiq {

// Group commit of received messages. Each message's files are staged (written, not yet on disk);
// once per turn of the event loop one flush round makes every file staged so far durable, off the
// event loop, and then tells each message, on the owning thread, whether its files are stored.
// A few rounds run at once; while that many run, newly staged files wait for the next: under load
// one round covers many messages, alone a message waits for one round only.
class CommitQueue {
public:
    // A round mostly waits for the disk, and the disk serves the waits of several rounds together:
    // a message staged while one runs starts a round of its own rather than wait for it.
    static constexpr int kMostRoundsAtOnce = 8;

    // Makes the files durable under their names, all or nothing; runs on a worker thread.
    using Flush = std::function<bool(const QList<StagedFile>& files, QString* error)>;
    // `stored` false: nothing of the message is left on disk, `error` says why.
    using Done = std::function<void(bool stored, const QString& error)>;

    // Without a flush of its own, CommitStagedFiles with this queue's threads for the file syncs.
    explicit CommitQueue(Flush flush = {});
    // Waits for the rounds under way (one disk flush each); messages that were not told stay untold.
    ~CommitQueue();
    CommitQueue(const CommitQueue&) = delete;
    CommitQueue& operator=(const CommitQueue&) = delete;

    // Queues the staged files of one message; `done` runs later, never inside this call.
    void commit(QList<StagedFile> files, Done done);

    // For measurements and tests: rounds run so far and the messages and files they covered.
    int rounds() const { return rounds_; }
    int messages() const { return messages_; }
    int files() const { return files_; }
    void setFlush(Flush flush) { flush_ = std::move(flush); }

private:
    // Threads that save files to disk for the rounds, kept between rounds (a thread started per
    // file costs more than its sync on a virtual machine) and gone after a while without mail.
    static constexpr int kSyncThreads = 8;
    struct Waiting {
        QList<StagedFile> files;
        Done done;
    };

    void syncEach(qsizetype count, const std::function<void(qsizetype)>& job);
    void schedule();
    void startRound();
    void finishRound(const QList<Waiting>& covered, bool stored, const QString& error);

    Flush flush_;
    QList<Waiting> waiting_;  // staged, for the next round
    bool roundScheduled_ = false;
    int roundsRunning_ = 0;
    int rounds_ = 0;
    int messages_ = 0;
    int files_ = 0;
    QObject receiver_; // lives on the owning thread; the rounds' outcomes are posted to it
    QThreadPool syncPool_;
    QThreadPool pool_; // last, so that it is gone (and its rounds done) first
};

} // namespace postiq
