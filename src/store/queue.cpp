#include "store/queue.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdio.h>

#include "platform/folder_scan.h"
#include "platform/locked_file.h"
#include "platform/program_folder.h"
#include "store/address.h"
#include "store/domain_parts.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"
#include "store/queue_file_format.h"

namespace postiq {

namespace {
// Far more than chance ever needs among nearly a million million names: reaching it means the
// draw is broken, which must not hang the program.
constexpr int kMaxDraws = 1000;
// What a streamed text is written to disk by, and what a copy reads at a time.
constexpr qsizetype kChunk = 256 * 1024;
// A staging file created by someone else between the name's draw and its creation.
constexpr int kNameTakenMeanwhile = ErrFileAccess;

QString systemError(int number) { return QString::fromLocal8Bit(std::strerror(number)); }

QByteArray serialisedHead(const CMessage& head, qint64 textSize)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    WriteQueueRecordHead(buffer, head);
    buffer.write(LongTextCount(quint32(textSize)));
    return buffer.data();
}

QueueFault missingOrUnreadable(const QFile& file)
{
    return QueueFault(QFileInfo::exists(file.fileName()) ? ErrFileAccess : ErrFileNotFound,
                      QStringLiteral("Cannot open '%1': %2").arg(file.fileName(), file.errorString()));
}

// Stages a copy of `from` beside `to`, then makes it durable under that name. With `head`, the
// copy has those fields before the text and only the text is taken from `from`; without, it is
// the same bytes. Either way the text goes a chunk at a time.
void writeDurably(const QString& to, const QString& from, const CMessage* head)
{
    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        throw missingOrUnreadable(source);
    qint64 left = source.size();
    QByteArray first;
    if (head) {
        CMessage scratch = *head;
        try {
            left = ReadQueueRecordHead(source, scratch);
        } catch (const Fault& fault) { // a torn or foreign file keeps its place
            throw QueueFault(fault.number(), QStringLiteral("'%1': %2").arg(from, fault.description()));
        }
        first = serialisedHead(*head, left);
    }
    const QString staging = StagingPathOf(to);
    QFile::remove(staging); // a copy of an earlier attempt that failed
    LockedNewFile copy;
    int number = 0;
    if (!copy.create(staging, &number))
        throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot create '%1': %2").arg(staging, systemError(number)),
                         IsDiskFull(number));
    bool written = true;
    if (!first.isEmpty())
        written = copy.write(first.constData(), first.size(), &number);
    while (written && left > 0) {
        const QByteArray chunk = source.read(std::min<qint64>(left, kChunk));
        if (chunk.isEmpty()) {
            number = EIO;
            written = false;
            break;
        }
        left -= chunk.size();
        written = copy.write(chunk.constData(), chunk.size(), &number);
    }
    written = written && copy.sync(&number);
    copy.close();
    if (!written) {
        QFile::remove(staging);
        throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot write '%1': %2").arg(to, systemError(number)),
                         IsDiskFull(number));
    }
    QString error;
    if (std::rename(QFile::encodeName(staging).constData(), QFile::encodeName(to).constData()) != 0
        || !SyncFolderOf(to, &error)) {
        const QString reason = error.isEmpty() ? systemError(errno) : error;
        QFile::remove(staging);
        throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot store '%1': %2").arg(to, reason));
    }
}

// Removes the file and makes the removal durable; a file already gone is no fault.
void removeDurably(const QString& path)
{
    const QFileInfo file(path);
    if (file.exists()) {
        QFile entry(path);
        if (!entry.remove())
            throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot delete '%1': %2").arg(path, entry.errorString()));
    }
    // Synced even when the file was already gone: an earlier removal may not have reached the
    // disk yet. Without its folder there is nothing to make durable.
    if (!file.dir().exists())
        return;
    QString error;
    if (!SyncFolderOf(path, &error))
        throw QueueFault(ErrFileAccess, error);
}
} // namespace

Queue::Queue(QString programFolder) : programFolder_(std::move(programFolder)) {}

Queue::~Queue() = default;

QByteArray Queue::folderName(QueueFolder folder)
{
    switch (folder) {
    case QueueFolder::OutBox:
        return "OutBox";
    case QueueFolder::Deferred:
        return "Deferred";
    case QueueFolder::Error:
        return "Error";
    }
    return {};
}

QString Queue::folderPath(QueueFolder folder) const
{
    return SubfolderPath(programFolder_, QString::fromLatin1(folderName(folder)));
}

QString Queue::filePath(QueueFolder folder, const QByteArray& name) const
{
    return folderPath(folder) + '/' + QFile::decodeName(name);
}

QList<QueueFolder> Queue::createMissingFolders() const
{
    QList<QueueFolder> created;
    for (const QueueFolder folder : kQueueFolders) {
        const QString path = folderPath(folder);
        if (QFileInfo(path).isDir())
            continue;
        if (!QDir().mkpath(path))
            throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot create the folder ") + path);
        created.append(folder);
    }
    return created;
}

QByteArray Queue::freshName(const QByteArray& suffix, const std::function<QByteArray()>& draw) const
{
    QStringList folders;
    for (const QueueFolder folder : kQueueFolders)
        folders.append(folderPath(folder));
    const auto taken = [&folders](const QByteArray& name) {
        for (const QString& folder : folders) {
            // A name being written (staged, not yet committed) is taken as well.
            const QString path = folder + '/' + QFile::decodeName(name);
            if (QFileInfo::exists(path) || QFileInfo::exists(StagingPathOf(path)))
                return true;
        }
        return false;
    };
    for (int attempt = 0; attempt < kMaxDraws; ++attempt) {
        const QByteArray name = (draw ? draw() : DrawQueueName()) + suffix;
        if (!taken(name))
            return name;
    }
    throw QueueFault(ErrFileAccess, QStringLiteral("No free queue file name after %1 draws").arg(kMaxDraws));
}

std::optional<QueueFolder> Queue::find(const QByteArray& name) const
{
    // A name is a bare file name: anything that would reach outside the folder is no message.
    if (name.isEmpty() || name.startsWith('.') || name.contains('/'))
        return std::nullopt;
    for (const QueueFolder folder : kQueueFolders) {
        if (QFileInfo(filePath(folder, name)).isFile())
            return folder;
    }
    return std::nullopt;
}

QList<QueueEntry> Queue::list(QueueFolder folder) const
{
    QList<QueueEntry> entries;
    const QString path = folderPath(folder);
    FolderScan scan(path);
    while (const std::optional<QByteArray> name = scan.nextFile()) {
        const QFileInfo info(path + '/' + QFile::decodeName(*name));
        if (!info.exists())
            continue; // gone since the scan saw it
        entries.append(QueueEntry{folder, *name, info.size(), info.lastModified()});
    }
    return entries;
}

QList<QueueEntry> Queue::listAll() const
{
    QList<QueueEntry> entries;
    for (const QueueFolder folder : kQueueFolders)
        entries += list(folder);
    return entries;
}

std::optional<QByteArray> Queue::next(QueueFolder folder, const std::function<bool(const QByteArray&)>& skip) const
{
    switch (folder) {
    case QueueFolder::OutBox:
        return index().nextOutBox(skip);
    case QueueFolder::Deferred:
        for (const QByteArray& name : index().deferredUntil(std::nullopt)) {
            if (!skip || !skip(name))
                return name;
        }
        return std::nullopt;
    case QueueFolder::Error:
        break;
    }
    FolderScan scan(folderPath(folder));
    while (std::optional<QByteArray> name = scan.nextFile()) {
        if (!skip || !skip(*name))
            return name;
    }
    return std::nullopt;
}

std::optional<QDateTime> Queue::earliestDeferral() const { return index().earliestDeferral(); }

QueueIndex& Queue::index() const
{
    if (!index_) {
        QueueIndex built;
        FolderScan scan(folderPath(QueueFolder::OutBox));
        while (const std::optional<QByteArray> name = scan.nextFile())
            built.addOutBox(*name);
        for (const QueueEntry& entry : list(QueueFolder::Deferred))
            built.addDeferred(entry.name, entry.modified);
        index_ = std::move(built);
    }
    return *index_;
}

void Queue::rescanOutBox() const
{
    QList<QByteArray> listed;
    FolderScan scan(folderPath(QueueFolder::OutBox));
    while (const std::optional<QByteArray> name = scan.nextFile())
        listed.append(*name);
    const QSet<QByteArray> present(listed.cbegin(), listed.cend());
    for (const QByteArray& name : index().outBoxNames()) {
        if (!present.contains(name))
            announce(QueueFolder::OutBox, name, QueueChange::Removed);
    }
    for (const QByteArray& name : listed) {
        if (!index().inOutBox(name))
            announce(QueueFolder::OutBox, name, QueueChange::Added);
    }
}

void Queue::updateIndex(QueueFolder folder, const QByteArray& name, QueueChange change) const
{
    if (!index_)
        return; // built from the disk when first needed
    switch (folder) {
    case QueueFolder::OutBox:
        if (change == QueueChange::Removed)
            index_->removeOutBox(name);
        else
            index_->addOutBox(name);
        break;
    case QueueFolder::Deferred:
        if (change == QueueChange::Removed) {
            index_->removeDeferred(name);
        } else {
            // The file's time is its deferral time: the same clock that a scan at start reads.
            const QFileInfo file(filePath(folder, name));
            index_->addDeferred(name, file.exists() ? file.lastModified() : QDateTime::currentDateTime());
        }
        break;
    case QueueFolder::Error:
        break;
    }
}

void Queue::forgetIfGone(QueueFolder folder, const QByteArray& name) const
{
    if (folder == QueueFolder::Error || !index_ || QFileInfo::exists(filePath(folder, name)))
        return;
    if (folder == QueueFolder::OutBox ? index_->inOutBox(name) : index_->inDeferred(name))
        announce(folder, name, QueueChange::Removed);
}

void Queue::noMessage(QueueFolder folder, const QByteArray& name) const
{
    forgetIfGone(folder, name);
    throw QueueFault(ErrFileNotFound, QStringLiteral("No message '%1' in %2")
                                          .arg(QString::fromLatin1(name), QString::fromLatin1(folderName(folder))));
}

int Queue::partsOf(const CMessage& message) { return int(EnvelopesByDomain(message).size()); }

QByteArray Queue::freshGroupName(int parts) const
{
    for (int attempt = 0; attempt < kMaxDraws; ++attempt) {
        const QByteArray name = freshName();
        bool free = true;
        for (int k = 1; parts > 1 && k <= parts && free; ++k) {
            const QByteArray part = name + '-' + QByteArray::number(k);
            free = !find(part) && !QFileInfo::exists(StagingPathOf(filePath(QueueFolder::OutBox, part)));
        }
        if (free)
            return name;
    }
    throw QueueFault(ErrFileAccess, QStringLiteral("No free queue file name after %1 draws").arg(kMaxDraws));
}

std::vector<std::unique_ptr<QueueWriter>> Queue::split(const CMessage& message, const QByteArray& group) const
{
    const QList<CMessage> envelopes = EnvelopesByDomain(message);
    std::vector<std::unique_ptr<QueueWriter>> writers;
    if (envelopes.size() <= 1) {
        writers.push_back(open(message, {}, group));
    } else {
        for (qsizetype k = 0; k < envelopes.size(); ++k) {
            const QByteArray suffix = '-' + QByteArray::number(k + 1);
            writers.push_back(open(envelopes[k], suffix, group.isEmpty() ? QByteArray() : group + suffix));
        }
    }
    for (const std::unique_ptr<QueueWriter>& writer : writers) {
        writer->append(message.Data);
        writer->finish();
    }
    return writers;
}

QList<StagedFile> Queue::stage(const CMessage& message) const
{
    QList<StagedFile> staged;
    for (const std::unique_ptr<QueueWriter>& writer : split(message, {})) {
        staged.append(writer->staged());
        writer->committed_ = true; // handed over: the caller commits or discards it
    }
    return staged;
}

QList<StagedFile> Queue::stageWritten(std::unique_ptr<QueueWriter> writer, const CMessage& envelope) const
{
    writer->finish();
    const QList<CMessage> envelopes = EnvelopesByDomain(envelope);
    if (envelopes.size() <= 1) {
        writer->committed_ = true; // handed over: the caller commits or discards it
        return {writer->staged()};
    }
    QList<StagedFile> staged;
    for (const std::unique_ptr<QueueWriter>& part :
         WriteDomainParts(*this, *writer, envelopes, [](const QByteArray&) { return QByteArray(); })) {
        staged.append(part->staged());
        part->committed_ = true; // handed over: the caller commits or discards it
    }
    return staged;
}

QByteArrayList Queue::enqueue(const CMessage& message, const QByteArray& group) const
{
    // The writers (and their locks) live until every file is committed.
    const std::vector<std::unique_ptr<QueueWriter>> writers = split(message, group);
    QList<StagedFile> staged;
    QByteArrayList names;
    for (const std::unique_ptr<QueueWriter>& writer : writers) {
        staged.append(writer->staged());
        names.append(writer->name());
    }
    QString error;
    if (!CommitStagedFiles(staged, &error))
        throw QueueFault(ErrAccessDenied, error, errno == ENOSPC || errno == EDQUOT);
    for (const std::unique_ptr<QueueWriter>& writer : writers)
        writer->committed_ = true;
    for (const QByteArray& name : names)
        announce(QueueFolder::OutBox, name, QueueChange::Added);
    return names;
}

std::unique_ptr<QueueWriter> Queue::open(const CMessage& envelope, const QByteArray& suffix,
                                         const QByteArray& chosen) const
{
    if (!chosen.isEmpty()) {
        std::unique_ptr<QueueWriter> writer(new QueueWriter(filePath(QueueFolder::OutBox, chosen), chosen, envelope));
        writer->queue_ = this;
        return writer;
    }
    // Two writers (this process and another) may draw the same free name in the same instant:
    // creating the staging file decides, and the loser draws again.
    for (int attempt = 0;; ++attempt) {
        const QByteArray name = freshName(suffix);
        try {
            std::unique_ptr<QueueWriter> writer(new QueueWriter(filePath(QueueFolder::OutBox, name), name, envelope));
            writer->queue_ = this;
            return writer;
        } catch (const QueueFault& fault) {
            if (fault.number() != kNameTakenMeanwhile || attempt >= 3)
                throw;
        }
    }
}

namespace {
// Opens a queue file and reads it into `into` with `reader`; a fault leaves `into` as it was.
template <typename Reader>
auto loadRecord(const QString& path, CMessage& into, Reader reader)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw QueueFault(QFileInfo::exists(path) ? ErrFileAccess : ErrFileNotFound,
                         QStringLiteral("Cannot open '%1': %2").arg(path, file.errorString()));
    CMessage loaded = into;
    try {
        auto result = reader(file, loaded);
        into = std::move(loaded);
        return result;
    } catch (const QueueFault&) {
        throw;
    } catch (const Fault& fault) { // a torn or foreign file
        throw QueueFault(fault.number(), QStringLiteral("'%1': %2").arg(path, fault.description()));
    }
}
} // namespace

void Queue::read(QueueFolder folder, const QByteArray& name, CMessage& into) const
{
    try {
        loadRecord(filePath(folder, name), into, [](QFile& file, CMessage& loaded) {
            ReadQueueRecord(file, loaded);
            return 0;
        });
    } catch (const QueueFault& fault) {
        if (fault.number() == ErrFileNotFound)
            forgetIfGone(folder, name);
        throw;
    }
}

qint64 Queue::readHead(QueueFolder folder, const QByteArray& name, CMessage& into) const
{
    try {
        return loadRecord(filePath(folder, name), into, ReadQueueRecordHead);
    } catch (const QueueFault& fault) {
        if (fault.number() == ErrFileNotFound)
            forgetIfGone(folder, name);
        throw;
    }
}

void Queue::move(QueueFolder from, QueueFolder to, const QByteArray& name, const CMessage* updated) const
{
    const QString source = filePath(from, name);
    const QString target = filePath(to, name);
    if (!QFileInfo(source).isFile())
        noMessage(from, name);
    if (from == to) {
        if (updated)
            rewrite(from, name, *updated);
        return;
    }
    writeDurably(target, source, updated);
    try {
        removeDurably(source);
    } catch (const QueueFault&) {
        // The original could not go: the copy is taken back, so that the message stays where it was.
        QFile::remove(target);
        QString ignored;
        SyncFolderOf(target, &ignored);
        throw;
    }
    announce(from, name, QueueChange::Removed);
    announce(to, name, QueueChange::Added);
}

int Queue::returnDeferred(std::optional<qint64> olderThanSeconds, const QDateTime& now, QStringList* errors) const
{
    // Due once whole seconds of age exceed the delay: deferred at least (delay + 1) s before now.
    std::optional<QDateTime> latest;
    if (olderThanSeconds)
        latest = now.addMSecs(-(*olderThanSeconds + 1) * 1000);
    int moved = 0;
    for (const QByteArray& name : index().deferredUntil(latest)) {
        try {
            backToOutBox(QueueFolder::Deferred, name);
            ++moved;
        } catch (const QueueFault& fault) {
            if (errors)
                errors->append(fault.description());
        }
    }
    return moved;
}

void Queue::rewrite(QueueFolder folder, const QByteArray& name, const CMessage& head) const
{
    const QString path = filePath(folder, name);
    if (!QFileInfo(path).isFile())
        noMessage(folder, name);
    writeDurably(path, path, &head);
    announce(folder, name, QueueChange::Rewritten);
}

QByteArray Queue::derive(QueueFolder from, const QByteArray& name, QueueFolder to, const CMessage& head) const
{
    const QString source = filePath(from, name);
    if (!QFileInfo(source).isFile())
        noMessage(from, name);
    CMessage named = head;
    named.ID = freshName();
    writeDurably(filePath(to, named.ID), source, &named);
    announce(to, named.ID, QueueChange::Added);
    return named.ID;
}

void Queue::remove(QueueFolder folder, const QByteArray& name) const
{
    removeDurably(filePath(folder, name));
    announce(folder, name, QueueChange::Removed);
}

void Queue::removeDelivered(QueueFolder folder, const QByteArray& name) const
{
    const QString path = filePath(folder, name);
    if (std::remove(QFile::encodeName(path).constData()) != 0 && errno != ENOENT)
        throw QueueFault(ErrAccessDenied, QStringLiteral("Cannot delete '%1': %2").arg(path, systemError(errno)));
    announce(folder, name, QueueChange::Removed);
}

int Queue::addObserver(QueueObserver observer)
{
    observers_.emplace_back(++lastObserver_, std::move(observer));
    return lastObserver_;
}

void Queue::removeObserver(int id)
{
    std::erase_if(observers_, [id](const auto& entry) { return entry.first == id; });
}

void Queue::announce(QueueFolder folder, const QByteArray& name, QueueChange change) const
{
    updateIndex(folder, name, change);
    // A copy: an observer may add or remove observers while it is told.
    const auto observers = observers_;
    for (const auto& [id, observer] : observers)
        observer(folder, name, change);
}

bool Queue::claim(const QByteArray& name)
{
    if (claims_.contains(name))
        return false;
    claims_.insert(name);
    return true;
}

void Queue::release(const QByteArray& name) { claims_.remove(name); }

QueueLeftovers Queue::clearLeftovers() const
{
    QueueLeftovers found;
    QHash<QByteArray, QList<QueueEntry>> copies;
    QList<QueueEntry> listed; // in each folder's own order
    for (const QueueFolder folder : kQueueFolders) {
        const QDir dir(folderPath(folder));
        // Matched by hand: a name filter compiles a regular expression, which costs the idle
        // relay memory it never gives back.
        const QStringList entries = dir.entryList(QDir::Files | QDir::Hidden);
        for (const QString& name : entries) {
            if (!name.startsWith('.') || !name.endsWith(QLatin1String(".new")))
                continue;
            const QString path = dir.filePath(name);
            if (LockedFileInUse(path)) // another process (a sendmail) is writing it now
                continue;
            if (QFile::remove(path))
                ++found.stagingFiles;
        }
        for (const QueueEntry& entry : list(folder)) {
            copies[entry.name].append(entry);
            listed.append(entry);
        }
    }
    for (const QList<QueueEntry>& same : std::as_const(copies)) {
        if (same.size() < 2)
            continue;
        // Listed OutBox first: on equal times the earlier folder wins.
        qsizetype keep = 0;
        for (qsizetype i = 1; i < same.size(); ++i) {
            if (same[i].modified > same[keep].modified)
                keep = i;
        }
        for (qsizetype i = 0; i < same.size(); ++i) {
            if (i == keep)
                continue;
            try {
                remove(same[i].folder, same[i].name);
                ++found.duplicates;
                listed.removeIf([&](const QueueEntry& entry) {
                    return entry.folder == same[i].folder && entry.name == same[i].name;
                });
            } catch (const QueueFault&) {
                // left for the next start; both copies are whole
            }
        }
    }
    if (found.stagingFiles > 0) {
        for (const QueueFolder folder : kQueueFolders) {
            QString ignored;
            SyncFolderOf(folderPath(folder) + QStringLiteral("/."), &ignored);
        }
    }
    // The start's one scan builds the index too, so that the first dispatch finds it ready.
    QueueIndex built;
    for (const QueueEntry& entry : std::as_const(listed)) {
        if (entry.folder == QueueFolder::OutBox)
            built.addOutBox(entry.name);
        else if (entry.folder == QueueFolder::Deferred)
            built.addDeferred(entry.name, entry.modified);
    }
    index_ = std::move(built);
    return found;
}

// ---- QueueWriter ----

struct QueueWriter::File {
    LockedNewFile file;
};

QueueWriter::QueueWriter(const QString& path, const QByteArray& name, const CMessage& envelope)
    : path_(path), stagingPath_(StagingPathOf(path)), name_(name), file_(std::make_unique<File>())
{
    int number = 0;
    if (!file_->file.create(stagingPath_, &number))
        throw QueueFault(number == EEXIST ? kNameTakenMeanwhile : ErrAccessDenied,
                         QStringLiteral("Cannot create '%1': %2").arg(stagingPath_, systemError(number)),
                         IsDiskFull(number));
    CMessage head = envelope;
    head.ID = name;
    head.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
    head.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
    if (!envelope.TxtEng.isEmpty() || !envelope.TxtFr.isEmpty()) {
        head.TxtEng = envelope.TxtEng;
        head.TxtFr = envelope.TxtFr;
    }
    QBuffer buffer(&buffer_);
    buffer.open(QIODevice::WriteOnly);
    WriteQueueRecordHead(buffer, head);
    buffer.close();
    countOffset_ = buffer_.size();
    buffer_ += LongTextCount(0); // the real size is written by finish()
}

QueueWriter::~QueueWriter()
{
    if (!committed_)
        discard();
}

void QueueWriter::fail(const QString& what, int number)
{
    discard();
    throw QueueFault(ErrAccessDenied, QStringLiteral("%1 '%2': %3").arg(what, stagingPath_, systemError(number)),
                     IsDiskFull(number));
}

void QueueWriter::flushBuffer()
{
    int number = 0;
    if (!file_->file.isOpen())
        throw QueueFault(ErrFileAccess, QStringLiteral("The queue file '%1' is closed").arg(stagingPath_));
    if (!file_->file.write(buffer_.constData(), buffer_.size(), &number))
        fail(QStringLiteral("Cannot write"), number);
    buffer_.clear();
}

void QueueWriter::append(const QByteArray& text)
{
    if (finished_)
        throw QueueFault(ErrInvalidCall, QStringLiteral("Text added to a finished queue file"));
    if (quint64(textSize_) + quint64(text.size()) >= 0xFFFFFFFFu)
        throw QueueFault(ErrOverflow, QStringLiteral("A message of 4 GB or more cannot be queued"));
    buffer_ += text;
    textSize_ += text.size();
    if (buffer_.size() >= kChunk)
        flushBuffer();
}

void QueueWriter::finish()
{
    if (finished_)
        return;
    flushBuffer();
    int number = 0;
    if (!file_->file.writeAt(countOffset_, LongTextCount(quint32(textSize_)), &number))
        fail(QStringLiteral("Cannot write"), number);
    finished_ = true;
}

void QueueWriter::commit()
{
    finish();
    int number = 0;
    if (!file_->file.sync(&number))
        fail(QStringLiteral("Cannot save to disk"), number);
    if (::renameat2(AT_FDCWD, QFile::encodeName(stagingPath_).constData(), AT_FDCWD,
                    QFile::encodeName(path_).constData(), RENAME_NOREPLACE)
        != 0)
        fail(QStringLiteral("Cannot rename to its name"), errno);
    QString error;
    if (!SyncFolderOf(path_, &error)) {
        QFile::remove(path_);
        discard();
        throw QueueFault(ErrAccessDenied, error);
    }
    committed_ = true;
    file_->file.close();
    if (queue_)
        queue_->announce(QueueFolder::OutBox, name_, QueueChange::Added);
}

void QueueWriter::discard()
{
    file_->file.close();
    if (!committed_)
        QFile::remove(stagingPath_);
    committed_ = true; // nothing more to undo
}

} // namespace postiq
