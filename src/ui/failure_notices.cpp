#include "ui/failure_notices.h"

#include "log/fault.h"
#include "store/header_words.h"
#include "store/message.h"
#include "store/queue_text_reader.h"

namespace postiq {

namespace {
// The subject the relay gives the notice of a failure for good; a delay notice has another.
const QByteArray kBounceSubject = "Undelivered Mail Returned to Sender";
constexpr qint64 kHeaderBytes = 4 * 1024;
} // namespace

FailureNotices::FailureNotices(Queue& queue, Logs& logs, Text text, std::chrono::milliseconds grouping,
                               QObject* parent)
    : QObject(parent), queue_(queue), logs_(logs), text_(std::move(text))
{
    grouping_.setSingleShot(true);
    grouping_.setInterval(grouping);
    connect(&grouping_, &QTimer::timeout, this, &FailureNotices::tell);
    observer_ = queue_.addObserver(
        [this](QueueFolder folder, const QByteArray& name, QueueChange change) { heard(folder, name, change); });
}

FailureNotices::~FailureNotices() { queue_.removeObserver(observer_); }

bool FailureNotices::isBounce(bool forSender, const QByteArray& textStart)
{
    return forSender && HeaderFieldValue(textStart, "Subject") == kBounceSubject;
}

void FailureNotices::heard(QueueFolder folder, const QByteArray& name, QueueChange change)
{
    if (change != QueueChange::Added)
        return;
    if (folder == QueueFolder::Error) {
        errors_ << name;
    } else if (folder == QueueFolder::OutBox) {
        // Only a notice (from the record's head) has its text's start read.
        CMessage head(logs_);
        try {
            queue_.readHead(folder, name, head);
            if (!head.ForSender)
                return;
            QueueTextReader reader(queue_, folder, name, head);
            if (!isBounce(head.ForSender, reader.read(kHeaderBytes)))
                return;
        } catch (const Fault&) {
            return; // gone already, or unreadable: delivery will say so
        }
        bounced_ << head.RcptTo(1);
    } else {
        return;
    }
    if (!grouping_.isActive())
        grouping_.start();
}

void FailureNotices::tell()
{
    QStringList lines;
    if (errors_.size() == 1) {
        const QString one = text_("noticeOneError", QStringLiteral("Le message %1 a été placé dans Error"));
        lines << one.arg(QString::fromLatin1(errors_.first()));
    } else if (errors_.size() > 1) {
        lines << text_("noticeManyErrors", QStringLiteral("%1 messages ont été placés dans Error")).arg(errors_.size());
    }
    if (bounced_.size() == 1) {
        const QString one = text_("noticeOneBounce", QStringLiteral("Un avis de non-remise a été envoyé à %1"));
        lines << one.arg(QString::fromUtf8(bounced_.first()));
    } else if (bounced_.size() > 1) {
        lines << text_("noticeManyBounces", QStringLiteral("%1 avis de non-remise ont été envoyés")).arg(bounced_.size());
    }
    errors_.clear();
    bounced_.clear();
    if (!lines.isEmpty())
        emit notice(lines.join(u'\n'));
}

} // namespace postiq
