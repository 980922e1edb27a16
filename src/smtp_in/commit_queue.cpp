#include "smtp_in/commit_queue.h"

#include "platform/commit_stats.h"

namespace postiq {

CommitQueue::CommitQueue(Flush flush) : flush_(std::move(flush))
{
    pool_.setMaxThreadCount(kMostRoundsAtOnce);
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
    if (roundScheduled_ || roundsRunning_ >= kMostRoundsAtOnce || waiting_.isEmpty())
        return;
    roundScheduled_ = true;
    QMetaObject::invokeMethod(&receiver_, [this] {
        roundScheduled_ = false;
        startRound();
    }, Qt::QueuedConnection);
}

void CommitQueue::startRound()
{
    QList<Waiting> covered = std::exchange(waiting_, {});
    QList<StagedFile> files;
    for (const Waiting& message : covered)
        files += message.files;
    ++roundsRunning_;
    ++rounds_;
    messages_ += int(covered.size());
    files_ += int(files.size());
    pool_.start([this, flush = flush_, files = std::move(files), covered = std::move(covered)]() mutable {
        QString error;
        const bool stored = flush(files, &error);
        QMetaObject::invokeMethod(&receiver_, [this, stored, error, covered = std::move(covered)] {
            finishRound(covered, stored, error);
        }, Qt::QueuedConnection);
    });
}

void CommitQueue::finishRound(const QList<Waiting>& covered, bool stored, const QString& error)
{
    --roundsRunning_;
    for (const Waiting& message : covered) {
        if (!stored)
            DiscardStagedFiles(message.files); // whatever a failed flush may have left
        message.done(stored, error);
    }
    schedule();
}

} // namespace postiq
