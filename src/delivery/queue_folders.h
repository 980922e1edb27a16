#pragma once

#include <QString>

namespace postiq {

class Logs;

// The path of a queue file in OutBox, Deferred or Error of the program folder, the folder found
// whatever the case of its name.
QString QueueFilePath(const Logs& logs, const char* folder, const QString& file);

} // namespace postiq
