#pragma once

#include <QString>
#include <functional>

#include "platform/desktop.h"

namespace postiq {

class Application;

// Adds, after each start-up refusal, a line that says what to do about it.
class AdvisedDesktop : public Desktop {
public:
    AdvisedDesktop(Desktop& shown, QString folder, bool journal);
    void messageBox(const QString& title, const QString& text, Icon icon) override;
    bool askYesNo(const QString& title, const QString& text) override { return shown_.askYesNo(title, text); }
    void notice(const QString& title, const QString& text) override { shown_.notice(title, text); }
    void openFile(const QString& path) override { shown_.openFile(path); }
    void openAddress(const QString& url) override { shown_.openAddress(url); }
    void diagnostic(const QString& text) override { shown_.diagnostic(text); }
    [[noreturn]] void endProgram(int status) override;

private:
    Desktop& shown_;
    QString folder_;
    bool journal_;
};

// What a relay tells whoever reads its standard error (a terminal, or the journal under systemd):
// the address it listens on once the service runs, every line of maillog.txt and error.txt as it
// is written, and with a refusal or a port it cannot listen on, what to do about it.
class TerminalReport {
public:
    // On with --verbose, or headless with stderr a terminal or the journal.
    static bool wanted(bool verbose, bool headless);

    // `folder` is the absolute program folder; off, the report adds nothing to the desktop.
    TerminalReport(bool on, const QString& folder, Desktop& shown);

    // The desktop the program talks through.
    Desktop& desktop() { return on_ ? static_cast<Desktop&>(advised_) : shown_; }
    // Before the application starts: its log lines and service state reach stderr from then on.
    void follow(Application& application);

private:
    bool on_;
    bool journal_;
    QString folder_;
    Desktop& shown_;
    AdvisedDesktop advised_;
};

// The lines themselves, apart from where they go.
namespace terminal_text {
// "listening on 127.0.0.1:2525, folder /home/me/postiq": the address a local mail program uses.
QByteArray listening(quint16 port, const QString& folder);
// What to do about a refusal of start-up, empty when there is no advice for it.
QByteArray refusalAdvice(const QString& refusal, const QString& folder);
// What to do about a log line, empty for most: a port the service could not listen on.
QByteArray logLineAdvice(const QByteArray& line, const QString& folder,
                         const std::function<bool(quint16 port)>& needsPrivilege);
} // namespace terminal_text

} // namespace postiq
