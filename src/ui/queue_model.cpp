#include "ui/queue_model.h"

#include <QFileInfo>
#include <QLocale>
#include <limits>

#include "log/fault.h"
#include "store/header_words.h"
#include "store/message.h"
#include "store/queue_text_reader.h"

namespace postiq {

namespace {
const QString kTimeFormat = QStringLiteral("yyyy-MM-dd HH:mm:ss");

// A cell holds one line; the whole text goes to the tool-tip.
QString oneLine(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes).simplified();
}

// A row as the listing knows it, its head not read yet.
QueueRow unread(const QueueEntry& entry)
{
    QueueRow row;
    row.folder = entry.folder;
    row.id = entry.name;
    row.time = entry.modified;
    row.size = entry.size;
    return row;
}
} // namespace

QueueModel::QueueModel(Queue& queue, Logs& logs, std::function<int()> attemptDelayMinutes, QueueModelTexts texts,
                       QObject* parent)
    : QAbstractTableModel(parent), queue_(queue), logs_(logs), attemptDelayMinutes_(std::move(attemptDelayMinutes)),
      texts_(std::move(texts))
{
    headTimer_.setSingleShot(true);
    headTimer_.setInterval(0);
    connect(&headTimer_, &QTimer::timeout, this, &QueueModel::loadSomeHeads);
    // Observing before listing: a change between the two is then seen twice at worst, and a
    // second report of a row it has is harmless.
    observer_ = queue_.addObserver(
        [this](QueueFolder folder, const QByteArray& name, QueueChange change) { changed(folder, name, change); });
    const QList<QueueEntry> entries = queue_.listAll();
    rows_.reserve(entries.size());
    for (const QueueEntry& entry : entries) {
        if (index_.contains(entry.name))
            continue; // a message caught in the middle of a move: its other copy goes
        index_.insert(entry.name, int(rows_.size()));
        rows_.append(unread(entry));
        pending_.append(entry.name);
    }
    scheduleHeads();
}

QueueModel::~QueueModel() { queue_.removeObserver(observer_); }

int QueueModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(rows_.size()); }

int QueueModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : ColumnCount; }

QVariant QueueModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole)
        return texts_.headers.value(section);
    return {};
}

QVariant QueueModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rows_.size())
        return {};
    const QueueRow& row = rows_[index.row()];
    switch (role) {
    case Qt::DisplayRole:
        return display(row, index.column());
    case Qt::ToolTipRole:
        if (index.column() == ColLastError && !row.lastError.isEmpty())
            return row.lastError;
        if (index.column() == ColRecipients || index.column() == ColSubject)
            return display(row, index.column());
        return {};
    case Qt::TextAlignmentRole:
        if (index.column() == ColSize || index.column() == ColAttempts)
            return int(Qt::AlignRight | Qt::AlignVCenter);
        return {};
    case Qt::UserRole:
        return sortValue(row, index.column());
    default:
        return {};
    }
}

QString QueueModel::display(const QueueRow& row, int column) const
{
    switch (column) {
    case ColFolder: return QString::fromLatin1(Queue::folderName(row.folder));
    case ColId: return QString::fromLatin1(row.id);
    case ColArrival: return row.time.toString(kTimeFormat);
    case ColSender: return row.sender;
    case ColRecipients: return row.recipients;
    case ColSubject: return row.subject;
    case ColSize: return QLocale().formattedDataSize(row.size, 1, QLocale::DataSizeTraditionalFormat);
    case ColAttempts: return row.loaded && row.problem.isEmpty() ? QString::number(row.attempts) : QString();
    case ColLastError:
        return row.problem.isEmpty() ? QString(row.lastError).simplified() : texts_.unreadable.arg(row.problem);
    case ColNextTry: return nextTry(row);
    default: return {};
    }
}

QVariant QueueModel::sortValue(const QueueRow& row, int column) const
{
    switch (column) {
    case ColFolder: return int(row.folder);
    case ColArrival: return row.time;
    case ColSize: return row.size;
    case ColAttempts: return row.attempts;
    case ColNextTry:
        // Soonest first: OutBox now, Deferred by its time, Error never.
        switch (row.folder) {
        case QueueFolder::OutBox: return qint64(0);
        case QueueFolder::Deferred: return row.time.toMSecsSinceEpoch() + qint64(attemptDelayMinutes_()) * 60000;
        case QueueFolder::Error: return std::numeric_limits<qint64>::max();
        }
        return {};
    default: return display(row, column);
    }
}

QString QueueModel::nextTry(const QueueRow& row) const
{
    switch (row.folder) {
    case QueueFolder::OutBox: return texts_.nextTryNow;
    case QueueFolder::Deferred: return row.time.addSecs(qint64(attemptDelayMinutes_()) * 60).toString(kTimeFormat);
    case QueueFolder::Error: return {};
    }
    return {};
}

void QueueModel::changed(QueueFolder folder, const QByteArray& name, QueueChange change)
{
    const int at = rowOf(name);
    switch (change) {
    case QueueChange::Removed:
        // A move reports the new copy too; only the folder's own copy goes.
        if (at >= 0 && rows_[at].folder == folder)
            removeRow(at);
        return;
    case QueueChange::Added:
    case QueueChange::Rewritten: {
        const QFileInfo info(queue_.filePath(folder, name));
        if (!info.exists())
            return; // gone again already
        const QueueEntry entry{folder, name, info.size(), info.lastModified()};
        if (at < 0) {
            addRow(entry);
        } else {
            QueueRow& row = rows_[at];
            row = unread(entry);
            pending_.append(name);
            emit dataChanged(index(at, 0), index(at, ColumnCount - 1));
        }
        scheduleHeads();
        return;
    }
    }
}

void QueueModel::addRow(const QueueEntry& entry)
{
    const int at = int(rows_.size());
    beginInsertRows({}, at, at);
    rows_.append(unread(entry));
    index_.insert(entry.name, at);
    endInsertRows();
    pending_.append(entry.name);
}

void QueueModel::removeRow(int at)
{
    beginRemoveRows({}, at, at);
    index_.remove(rows_[at].id);
    rows_.removeAt(at);
    for (int i = at; i < rows_.size(); ++i)
        index_[rows_[i].id] = i;
    endRemoveRows();
}

void QueueModel::scheduleHeads()
{
    if (!pending_.isEmpty() && !headTimer_.isActive())
        headTimer_.start();
}

void QueueModel::loadSomeHeads()
{
    int first = std::numeric_limits<int>::max();
    int last = -1;
    for (int done = 0; done < kHeadsPerTurn && !pending_.isEmpty();) {
        const int at = rowOf(pending_.takeFirst());
        if (at < 0 || rows_[at].loaded)
            continue; // gone, or read already
        loadHead(rows_[at]);
        first = std::min(first, at);
        last = std::max(last, at);
        ++done;
    }
    if (last >= 0)
        emit dataChanged(index(first, 0), index(last, ColumnCount - 1));
    scheduleHeads();
}

void QueueModel::loadAllHeads()
{
    while (!pending_.isEmpty())
        loadSomeHeads();
    headTimer_.stop();
}

void QueueModel::loadHead(QueueRow& row) const
{
    row.loaded = true;
    CMessage head(logs_);
    try {
        QueueTextReader reader(queue_, row.folder, row.id, head);
        const QByteArray start = reader.read(kSubjectBytes);
        row.subject = DecodeHeaderWords(HeaderFieldValue(start, "Subject"));
        row.attempts = head.Essai;
        row.sender = oneLine(head.From);
        QStringList recipients;
        for (int i = 1; i <= head.MRcptToCount(); ++i)
            recipients << oneLine(head.RcptTo(i));
        row.recipients = recipients.join(QStringLiteral(", "));
        row.lastError = QString::fromUtf8(head.LastError).trimmed();
        row.problem.clear();
    } catch (const Fault& fault) {
        row.problem = fault.description();
    }
}

} // namespace postiq
