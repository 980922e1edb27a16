#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <sys/types.h>

namespace postiq {

// A log file kept open for appending. Each line goes out in one write() on an O_APPEND
// descriptor, so that the kernel puts it whole at the end of the file even while another program
// appends to the same file. The file is opened at its first line and opened again after reopen(),
// or when it was moved away or deleted (log rotation); that is looked at no more than once per
// second, not for every line.
class AppendFile {
public:
    static constexpr std::chrono::seconds kRotationCheck{1};

    explicit AppendFile(QString path);
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    const QString& path() const { return path_; }

    // Appends the bytes, creating the file when missing. False when they could not all be
    // written (full disk, I/O error, a folder in the file's place); the file is then opened
    // afresh for the next line.
    bool append(const QByteArray& bytes);
    // Closes the file; the next line opens the path again.
    void reopen();

private:
    bool open();
    void close();
    bool movedAway() const;

    QString path_;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    std::chrono::steady_clock::time_point nextRotationCheck_{};
};

} // namespace postiq
