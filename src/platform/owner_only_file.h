#pragma once

#include <QByteArray>
#include <QString>

namespace postiq {

// A file that holds a secret: it counts only when it belongs to the user running the program and
// gives no permission at all to the group or to others.
struct OwnerOnlyFile {
    enum Problem { None, Missing, NotAFile, OtherOwner, TooOpen, Unreadable };
    Problem problem = Missing;
    QByteArray content; // filled only when there is no problem
    unsigned mode = 0;  // the permission bits found (0644, ...), when the file exists
};

// Reads the whole file at `path`, checking its owner and mode on the opened file itself, so that
// what is checked is what is read. A symbolic link is refused as not a file.
OwnerOnlyFile ReadOwnerOnlyFile(const QString& path);

// Writes `content` to `path` with mode 0600, creating the file or replacing its content.
bool WriteOwnerOnlyFile(const QString& path, const QByteArray& content);

} // namespace postiq
