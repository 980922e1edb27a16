#pragma once

#include <QByteArray>
#include <QString>
#include <functional>

#include "log/fault.h"
#include "platform/append_file.h"

namespace postiq {

class Clock;
class Desktop;

// Whether the debug log is written: the configuration's debug mode once it is loaded, always
// (with a banner) before.
class DebugSwitch {
public:
    virtual ~DebugSwitch() = default;
    virtual bool configLoaded() const = 0;
    virtual bool debugMode() const = 0;
};

// Debug-log entry kinds: colour and leading glyph.
enum DebugKind : int {
    DbgPlain = 0,
    DbgInbound = 1,
    DbgArrow = 2,
    DbgMailLog = 3,
    DbgCache = 4,
};

// The text logs of the program folder and the fatal program-error report. The four files stay
// open for appending and each line goes out whole in one write, so that a crash never loses a
// written line and another program may read (or rotate) the files at any time. A line that
// cannot be written is dropped, never fatal: the relay's work matters more than its record, and
// once writing works again one line in the error log says how many were lost.
class Logs {
public:
    Logs(QString folder, const DebugSwitch& debug, Desktop& desktop, const Clock& clock);
    Logs(const Logs&) = delete;
    Logs& operator=(const Logs&) = delete;

    const QString& folder() const { return folder_; }
    // The clock that log lines are stamped with (GMTDate), carried here so that every writer has it.
    const Clock& clock() const { return clock_; }
    Desktop& desktop() const { return desktop_; }

    void MailLog(const QByteArray& line);
    void ErrorLog(const QByteArray& line);
    void UpdateLog(const QByteArray& line);

    // Closes the four files; each opens again at its next line ("Recharger", a rotation by hand).
    void reopenFiles();
    // Lines dropped since the error log last told of them.
    quint64 lostLines() const { return lostLines_; }

    // Whether a debug entry would be written now: a caller can spare building one that is not.
    bool debugWritten() const { return !debug_.configLoaded() || debug_.debugMode(); }

    // Appends CR LF to the caller's message, as the entry is written with it.
    void DbgAdd(QByteArray& message, int kind = DbgPlain);
    void DbgAdd(const QByteArray& message, int kind = DbgPlain)
    {
        QByteArray copy = message;
        DbgAdd(copy, kind);
    }

    // Called with each line once it is in maillog.txt or error.txt (the terminal report).
    using LineEcho = std::function<void(const QString& file, const QByteArray& line)>;
    void setLineEcho(LineEcho echo) { lineEcho_ = std::move(echo); }

    // Run before a fatal report shows its box: it stops whatever could still run while the box
    // waits for the user (listener, timers, socket handlers).
    void setBeforeFatalReport(std::function<void()> hook) { beforeFatalReport_ = std::move(hook); }

    // Writes the report to the debug log, tells the user and ends the program with status 1.
    [[noreturn]] void ReportProgramError(const QString& site, int number,
                                         const QString& description);

    // Runs a procedure under its own error handler: any fault inside it becomes the fatal
    // program-error report under the procedure's error-site label.
    template <typename Procedure>
    auto guarded(const char* site, Procedure&& procedure) -> decltype(procedure())
    {
        try {
            return procedure();
        } catch (const Fault& fault) {
            ReportProgramError(QString::fromUtf8(site), fault.number(), fault.description());
        } catch (const std::bad_alloc&) {
            ReportProgramError(QString::fromUtf8(site), ErrOutOfMemory, "Out of memory");
        } catch (const std::exception& error) {
            ReportProgramError(QString::fromUtf8(site), ErrInvalidCall,
                               QString::fromUtf8(error.what()));
        }
    }

private:
    void append(AppendFile& file, const QByteArray& bytes);
    void reportLostLines();
    void silenceBeforeFatalBox();

    QString folder_;
    const DebugSwitch& debug_;
    Desktop& desktop_;
    const Clock& clock_;
    std::function<void()> beforeFatalReport_;
    LineEcho lineEcho_;
    AppendFile mailLog_;
    AppendFile errorLog_;
    AppendFile updateLog_;
    AppendFile debugLog_;
    quint64 lostLines_ = 0;
};

} // namespace postiq
