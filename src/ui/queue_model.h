#pragma once

#include <QAbstractTableModel>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QStringList>
#include <QTimer>
#include <functional>

#include "store/queue.h"

namespace postiq {

class Logs;

// What the window shows of one queued message. The head (everything but the file's name, folder,
// size and time) is read after the row appears, see QueueModel.
struct QueueRow {
    QueueFolder folder = QueueFolder::OutBox;
    QByteArray id;
    QDateTime time; // the file's time: its arrival in OutBox and Error, its deferral in Deferred
    qint64 size = 0;
    bool loaded = false;
    QString problem; // why the head could not be read; empty when it could
    int attempts = 0;
    QString sender;
    QString recipients;
    QString subject;
    QString lastError;
};

// The words the model shows besides the messages' own, in the chosen language.
struct QueueModelTexts {
    QStringList headers{QStringLiteral("Dossier"),      QStringLiteral("ID"),
                        QStringLiteral("Arrivée"),      QStringLiteral("Expéditeur"),
                        QStringLiteral("Destinataires"), QStringLiteral("Objet"),
                        QStringLiteral("Taille"),       QStringLiteral("Essais"),
                        QStringLiteral("Dernière erreur"), QStringLiteral("Prochain essai")};
    QString nextTryNow = QStringLiteral("dès que possible");
    QString unreadable = QStringLiteral("illisible : %1");
};

// One row per message of OutBox, Deferred and Error, kept live by the queue's own change reports
// (never by polling the folders). Opening costs one listing of the folders; the heads are then
// read in small batches, one batch per turn of the event loop, so that a queue of thousands of
// messages opens at once and the window answers while they fill in. A row that arrives later gets
// its head the same way. Qt::UserRole gives each cell's value for sorting (dates, numbers).
class QueueModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column {
        ColFolder, ColId, ColArrival, ColSender, ColRecipients, ColSubject, ColSize, ColAttempts, ColLastError,
        ColNextTry, ColumnCount
    };
    static constexpr int kHeadsPerTurn = 100;
    // The first bytes of the text searched for the subject.
    static constexpr qint64 kSubjectBytes = 8 * 1024;

    // `attemptDelayMinutes` gives the wait before a deferred message is tried again.
    QueueModel(Queue& queue, Logs& logs, std::function<int()> attemptDelayMinutes, QueueModelTexts texts = {},
               QObject* parent = nullptr);
    ~QueueModel() override;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    const QueueRow& row(int index) const { return rows_[index]; }
    // The row of a message, or -1.
    int rowOf(const QByteArray& id) const { return index_.value(id, -1); }
    // Heads still to read.
    int pendingHeads() const { return int(pending_.size()); }
    // Reads every pending head now (for tests and for a caller that needs them all).
    void loadAllHeads();

private:
    void changed(QueueFolder folder, const QByteArray& name, QueueChange change);
    void addRow(const QueueEntry& entry);
    void removeRow(int index);
    void loadSomeHeads();
    void loadHead(QueueRow& row) const;
    void scheduleHeads();
    QString nextTry(const QueueRow& row) const;
    QString display(const QueueRow& row, int column) const;
    QVariant sortValue(const QueueRow& row, int column) const;

    Queue& queue_;
    Logs& logs_;
    std::function<int()> attemptDelayMinutes_;
    QueueModelTexts texts_;
    int observer_ = 0;
    QList<QueueRow> rows_;
    QHash<QByteArray, int> index_;
    QList<QByteArray> pending_; // names whose head is to be read, oldest first
    QTimer headTimer_;
};

} // namespace postiq
