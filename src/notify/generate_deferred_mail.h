#pragma once

#include <QString>

namespace postiq {

class Logs;
class Settings;

// Tells the sender of a message that is being retried that its delivery is delayed.
class CGenerateDeferredMail {
public:
    CGenerateDeferredMail(Logs& logs, const Settings& settings);

    // `file` is the bare name of a queue file in OutBox. A delay notice (BuildNotice) is queued in
    // OutBox under a new name, then the OutBox file is removed: keeping the delayed message (in
    // Deferred) is the caller's job, done before this call.
    // A fault on the way is the fatal program-error report.
    void GenerateDeferred(const QString& file);
    // The same, but a fault (a file that cannot be read or written) is thrown to the caller; the
    // delayed message is then still in OutBox.
    void Generate(const QString& file);

private:
    Logs& logs_;
    const Settings& settings_;
};

} // namespace postiq
