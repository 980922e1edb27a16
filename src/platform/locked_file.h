#pragma once

#include <QByteArray>
#include <QString>

namespace postiq {

// A new file written by this process and locked while it is written, so that another process
// cleaning up leftovers (LockedFileInUse) leaves it alone. Writes report the system's error number,
// so that a full disk can be told from other failures.
class LockedNewFile {
public:
    LockedNewFile() = default;
    ~LockedNewFile(); // closes; the file itself stays unless removed
    LockedNewFile(const LockedNewFile&) = delete;
    LockedNewFile& operator=(const LockedNewFile&) = delete;

    // Creates the file (never over an existing one) and locks it. False with errno's number.
    bool create(const QString& path, int* number);
    bool write(const char* data, qint64 size, int* number);
    bool writeAt(qint64 offset, const QByteArray& bytes, int* number);
    // Waits until the data is on disk.
    bool sync(int* number);
    void close();
    const QString& path() const { return path_; }
    bool isOpen() const { return handle_ >= 0; }

private:
    QString path_;
    int handle_ = -1;
};

// True when a process holds the lock of a LockedNewFile on `path`.
bool LockedFileInUse(const QString& path);

// Whether a system error number means that the disk (or the user's quota) is full.
bool IsDiskFull(int number);

} // namespace postiq
