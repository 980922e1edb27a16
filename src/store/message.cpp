#include "store/message.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>

#include "log/logs.h"
#include "log/dates.h"
#include "platform/durable_file.h"
#include "store/queue_file_format.h"

namespace postiq {

namespace {
// Both file operations report under the writer's label, the reader included.
constexpr const char* kFileSite = "CLS:CMessage[MWrite]";
constexpr int kMaxRecipients = 255;

QByteArray fileNote(Logs& logs, const char* action, const QString& path)
{
    return "<FONT face='Verdana' size='2'>" + GMTDate(logs.clock()) + action + path.toUtf8()
        + "</FONT><BR>";
}

void requireIndex(int index, qsizetype size)
{
    if (index < 0 || index >= size)
        throw Fault(ErrOutOfRange,
                    QStringLiteral("Recipient index %1 is beyond the list (0 to %2)").arg(index).arg(size - 1));
}
} // namespace

CMessage::CMessage(Logs& logs) : logs_(&logs) {}

QByteArray CMessage::RcptTo(int index) const
{
    requireIndex(index, rcptTo_.size());
    return rcptTo_[index];
}

void CMessage::setRcptTo(int index, const QByteArray& address)
{
    requireIndex(index, rcptTo_.size());
    rcptTo_[index] = address;
}

uint8_t CMessage::MRcptToCount() const
{
    const qsizetype count = rcptTo_.size() - 1;
    if (count > kMaxRecipients)
        throw Fault(ErrOverflow, QStringLiteral("%1 recipients are more than a message can have (%2)")
                                     .arg(count)
                                     .arg(kMaxRecipients));
    return uint8_t(count);
}

void CMessage::AddRcptTo(const QByteArray& address)
{
    // Refused here rather than counted later, so that a record never holds a list it cannot write.
    if (rcptTo_.size() - 1 >= kMaxRecipients)
        throw Fault(ErrOverflow, QStringLiteral("A message cannot have more than %1 recipients")
                                     .arg(kMaxRecipients));
    rcptTo_.append(address);
}

void CMessage::OneRcptTo() { rcptTo_ = {QByteArray(), QByteArray()}; }

void CMessage::MClear()
{
    From.clear();
    rcptTo_ = {QByteArray()};
    Data.clear();
    LastError.clear();
    Essai = 0;
}

void CMessage::MLoad(const QString& path)
{
    logs_->DbgAdd(fileNote(*logs_, ": Ouverture de ", path));
    if (!QFileInfo(path).isFile())
        return; // a missing file is not a fault: the record stays as it was
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw Fault(ErrFileAccess, QStringLiteral("Cannot open '%1': %2").arg(path, file.errorString()));
    // Read into a fresh record so that a fault never leaves this one half loaded.
    CMessage loaded(*logs_);
    ReadQueueRecord(file, loaded);
    *this = std::move(loaded);
}

void CMessage::MSave(const QString& path)
{
    logs_->DbgAdd(fileNote(*logs_, ": Ecriture de ", path));
    // Serialised first, then swapped in whole: a crash leaves the old file or the new one,
    // never a torn record nor a moment with no file at all.
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    WriteQueueRecord(buffer, *this);
    QString error;
    if (!ReplaceDurably(path, buffer.data(), &error))
        throw Fault(ErrAccessDenied, error);
}

void CMessage::MOpen(const QString& path)
{
    logs_->guarded(kFileSite, [&] {
        MLoad(path);
    });
}

void CMessage::MWrite(const QString& path)
{
    logs_->guarded(kFileSite, [&] {
        MSave(path);
    });
}

StagedFile CMessage::MStage(const QString& path)
{
    logs_->DbgAdd(fileNote(*logs_, ": Ecriture de ", path));
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    WriteQueueRecord(buffer, *this);
    QString error;
    StagedFile staged;
    if (!StageFile(path, buffer.data(), &staged, &error))
        throw Fault(ErrAccessDenied, error);
    return staged;
}

} // namespace postiq
