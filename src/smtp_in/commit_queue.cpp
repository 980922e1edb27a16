#include "smtp_in/commit_queue.h"

#include "platform/commit_stats.h"

namespace postiq {

CommitQueue::CommitQueue(Flush flush) : flush_(std::move(flush))
{
    pool_.setMaxThreadCount(1); // one round at a time: the next one gathers what came meanwhile
}

CommitQueue::~CommitQueue()
{
    pool_.waitForDone();
    ReportCommitTotals(rounds_, messages_, files_);
}

void CommitQueue::commit(QList<StagedFile> files, Done done)
{
    waiting_.append(Waiting{std::move(files), std::move(done)});
    schedule();
}

// Posted rather than run at once, so that every session whose data ended in this turn of the
// loop joins the same round.
void CommitQueue::schedule()
{
    if (roundScheduled_ || roundRunning_ || waiting_.isEmpty())
        return;
    roundScheduled_ = true;
    QMetaObject::invokeMethod(&receiver_, [this] {
        roundScheduled_ = false;
        startRound();
    }, Qt::QueuedConnection);
}

void CommitQueue::startRound()
{
    inFlight_ = std::exchange(waiting_, {});
    QList<StagedFile> files;
    for (const Waiting& message : inFlight_)
        files += message.files;
    roundRunning_ = true;
    ++rounds_;
    messages_ += int(inFlight_.size());
    files_ += int(files.size());
    pool_.start([this, flush = flush_, files = std::move(files)] {
        QString error;
        const bool stored = flush(files, &error);
        QMetaObject::invokeMethod(&receiver_, [this, stored, error] { finishRound(stored, error); },
                                  Qt::QueuedConnection);
    });
}

void CommitQueue::finishRound(bool stored, const QString& error)
{
    const QList<Waiting> covered = std::exchange(inFlight_, {});
    roundRunning_ = false;
    for (const Waiting& message : covered) {
        if (!stored)
            DiscardStagedFiles(message.files); // whatever a failed flush may have left
        message.done(stored, error);
    }
    schedule();
}

} // namespace postiq
