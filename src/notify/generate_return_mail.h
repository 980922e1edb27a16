#pragma once

#include <QString>

namespace postiq {

class Logs;
class Settings;

// Turns a queue file that has failed for good into a non-delivery report to its sender.
class CGenerateReturnMail {
public:
    CGenerateReturnMail(Logs& logs, const Settings& settings);

    // `file` is the bare name of a queue file in OutBox whose LastError says why it failed. The
    // report (BuildNotice) replaces it under the same name.
    // A fault on the way is the fatal program-error report.
    void GenerateError(const QString& file);
    // The same, but a fault (a file that cannot be read or written) is thrown to the caller, and
    // the failed message is then left as it was: delivery tries it again at the next tick.
    void Generate(const QString& file);

private:
    Logs& logs_;
    const Settings& settings_;
};

} // namespace postiq
