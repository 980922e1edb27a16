#include "smtp_in/commit_queue.h"

#include "platform/commit_stats.h"

#include <algorithm>
#include <atomic>
#include <latch>

namespace postiq {

CommitQueue::CommitQueue(Flush flush) : flush_(std::move(flush))
{
    if (!flush_) {
        flush_ = [this](const QList<StagedFile>& files, QString* error) {
            return CommitStagedFiles(files, error, [this](qsizetype count, const std::function<void(qsizetype)>& job) {
                syncEach(count, job);
            });
        };
    }
    syncPool_.setMaxThreadCount(kSyncThreads);
    pool_.setMaxThreadCount(kMostRoundsAtOnce);
}

CommitQueue::~CommitQueue()
{
    pool_.waitForDone();
    ReportCommitTotals(rounds_, messages_, files_);
}

// Runs on a round's thread, which takes its share of the jobs; helpers that start after the jobs
// are all taken find nothing left to do.
void CommitQueue::syncEach(qsizetype count, const std::function<void(qsizetype)>& job)
{
    std::atomic<qsizetype> next{0};
    const auto work = [&] {
        for (qsizetype i = next++; i < count; i = next++)
            job(i);
    };
    const qsizetype helpers = std::clamp<qsizetype>(count - 1, 0, kSyncThreads);
    std::latch done(helpers);
    for (qsizetype i = 0; i < helpers; ++i) {
        syncPool_.start([&] {
            work();
            done.count_down();
        });
    }
    work();
    done.wait();
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
