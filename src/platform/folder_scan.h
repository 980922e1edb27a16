#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace postiq {

// The plain files of a folder, one at a time in the order the directory gives them, as raw names:
// nothing is built for an entry but its name, so that skipping entries costs next to nothing.
// Folders, hidden names (files being written) and anything else that is not a regular file are
// passed over. A folder that cannot be read has no files.
class FolderScan {
public:
    explicit FolderScan(const QString& folder);
    ~FolderScan();
    FolderScan(const FolderScan&) = delete;
    FolderScan& operator=(const FolderScan&) = delete;

    std::optional<QByteArray> nextFile();

private:
    QByteArray folder_;
    void* dir_ = nullptr; // DIR*
};

} // namespace postiq
