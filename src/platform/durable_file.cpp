#include "platform/durable_file.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdio.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace postiq {

namespace {
bool fail(QString* error, const QString& what, const QString& path, int number = errno)
{
    *error = QStringLiteral("%1 '%2': %3").arg(what, path, QString::fromLocal8Bit(std::strerror(number)));
    return false;
}

// Closes and removes a file whose writing failed. Not QFile::remove: on a full disk its close
// fails again to write what is still buffered, and it then keeps the file.
void removeUnfinished(QFile& file)
{
    file.close();
    QFile::remove(file.fileName());
}
} // namespace

bool SyncFile(QFile& file, QString* error)
{
    if (!file.flush()) {
        *error = QStringLiteral("Cannot write '%1': %2").arg(file.fileName(), file.errorString());
        return false;
    }
    if (::fsync(file.handle()) != 0)
        return fail(error, QStringLiteral("Cannot save to disk"), file.fileName());
    return true;
}

bool SyncFolderOf(const QString& path, QString* error)
{
    const QString folder = QFileInfo(path).absolutePath();
    const int handle = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0 && errno == EACCES) {
        // A drop box (write and search, no read) cannot be opened to sync its entries: sync the
        // whole file system through the file itself, which holds the folder's entries too.
        const int file = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return fail(error, QStringLiteral("Cannot open the folder"), folder, EACCES);
        const bool synced = ::syncfs(file) == 0;
        const int number = errno;
        ::close(file);
        return synced || fail(error, QStringLiteral("Cannot save to disk the folder"), folder, number);
    }
    if (handle < 0)
        return fail(error, QStringLiteral("Cannot open the folder"), folder);
    // Some file systems cannot sync a folder and say so with EINVAL; their entries are as safe
    // as they will ever be.
    const bool synced = ::fsync(handle) == 0 || errno == EINVAL;
    const int number = errno;
    ::close(handle);
    return synced || fail(error, QStringLiteral("Cannot save to disk the folder"), folder, number);
}

bool ReplaceDurably(const QString& path, const QByteArray& data, QString* error)
{
    // Hidden beside the final name, so that a folder listing never takes a half-written copy
    // (or one left by a crash) for a file of its own.
    const QString temporary = StagingPathOf(path);
    QFile file(temporary);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = QStringLiteral("Cannot create '%1': %2").arg(temporary, file.errorString());
        return false;
    }
    if (file.write(data) != data.size()) {
        *error = QStringLiteral("Cannot write '%1': %2").arg(temporary, file.errorString());
        removeUnfinished(file);
        return false;
    }
    if (!SyncFile(file, error)) {
        removeUnfinished(file);
        return false;
    }
    file.close();
    if (std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()) != 0) {
        fail(error, QStringLiteral("Cannot replace"), path);
        QFile::remove(temporary);
        return false;
    }
    return SyncFolderOf(path, error);
}

QString StagingPathOf(const QString& path)
{
    const QFileInfo target(path);
    return target.dir().filePath('.' + target.fileName() + QStringLiteral(".new"));
}

bool StageFile(const QString& path, const QByteArray& data, StagedFile* staged, QString* error)
{
    const QString staging = StagingPathOf(path);
    QFile file(staging);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        *error = QStringLiteral("Cannot create '%1': %2").arg(staging, file.errorString());
        return false;
    }
    if (file.write(data) != data.size() || !file.flush()) {
        *error = QStringLiteral("Cannot write '%1': %2").arg(staging, file.errorString());
        removeUnfinished(file);
        return false;
    }
    *staged = StagedFile{staging, path};
    return true;
}

namespace {
// How many staging files are saved to disk at the same time at most.
constexpr qsizetype kMostSyncsAtOnce = 8;

// What became of one file's sync: 0 when it is on disk, otherwise the error number and the step.
struct SyncOutcome {
    int number = 0;
    bool opened = true;
};

SyncOutcome syncStaging(const QByteArray& staging)
{
    const int handle = ::open(staging.constData(), O_RDONLY | O_CLOEXEC);
    if (handle < 0)
        return {errno, false};
    const bool synced = ::fdatasync(handle) == 0;
    const int number = errno;
    ::close(handle);
    return {synced ? 0 : number, true};
}

// Runs the jobs on threads started for them, at most kMostSyncsAtOnce at a time.
void forEachOnThreadsOfItsOwn(qsizetype count, const std::function<void(qsizetype)>& job)
{
    std::atomic<qsizetype> next{0};
    const auto work = [&] {
        for (qsizetype i = next++; i < count; i = next++)
            job(i);
    };
    std::vector<std::jthread> helpers;
    try {
        for (qsizetype i = 1; i < std::min(count, kMostSyncsAtOnce); ++i)
            helpers.emplace_back(work);
    } catch (const std::system_error&) {
        // No thread to be had: the ones started and this one do the rest.
    }
    work();
} // the helpers are joined here, as they go out of scope

// Saves every staging file to disk, several at once. Each sync waits for the disk, and the disk
// serves the waits of many files together, so that a round costs about one wait where one file
// after another costs one each. The names are encoded first, so that the jobs only make system
// calls.
bool syncAllStaging(const QList<StagedFile>& files, QString* error, const ForEachAtOnce& atOnce)
{
    std::vector<QByteArray> paths;
    paths.reserve(size_t(files.size()));
    for (const StagedFile& file : files)
        paths.push_back(QFile::encodeName(file.staging));
    std::vector<SyncOutcome> outcomes(paths.size());
    const auto job = [&](qsizetype i) { outcomes[size_t(i)] = syncStaging(paths[size_t(i)]); };
    if (atOnce)
        atOnce(files.size(), job);
    else
        forEachOnThreadsOfItsOwn(files.size(), job);
    for (size_t i = 0; i < outcomes.size(); ++i) {
        if (outcomes[i].number == 0)
            continue;
        errno = outcomes[i].number; // as if this thread had failed: callers tell a full disk by it
        return fail(error, outcomes[i].opened ? QStringLiteral("Cannot save to disk") : QStringLiteral("Cannot open"),
                    files[qsizetype(i)].staging, outcomes[i].number);
    }
    return true;
}
} // namespace

bool CommitStagedFiles(const QList<StagedFile>& files, QString* error, const ForEachAtOnce& atOnce)
{
    // The data first, all of it, then the names, so that a crash never leaves a visible file
    // whose bytes did not reach the disk.
    bool ok = syncAllStaging(files, error, atOnce);
    qsizetype renamed = 0;
    QMap<QString, QString> folders; // folder -> a file in it
    for (; ok && renamed < files.size(); ++renamed) {
        const StagedFile& file = files[renamed];
        // Never over a file already there: its name was drawn free, so a clash is a fault.
        if (::renameat2(AT_FDCWD, QFile::encodeName(file.staging).constData(), AT_FDCWD,
                        QFile::encodeName(file.path).constData(), RENAME_NOREPLACE) != 0) {
            ok = fail(error, QStringLiteral("Cannot rename to"), file.path);
            break;
        }
        folders.insert(QFileInfo(file.path).absolutePath(), file.path);
    }
    for (auto folder = folders.cbegin(); ok && folder != folders.cend(); ++folder)
        ok = SyncFolderOf(folder.value(), error);
    if (!ok) {
        for (qsizetype i = 0; i < renamed; ++i)
            QFile::remove(files[i].path);
        DiscardStagedFiles(files);
    }
    return ok;
}

void DiscardStagedFiles(const QList<StagedFile>& files)
{
    for (const StagedFile& file : files)
        QFile::remove(file.staging);
}

} // namespace postiq
