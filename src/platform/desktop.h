#pragma once

#include <QString>

namespace postiq {

// The desktop services the program talks to the user through: modal message boxes and the end of
// the program. Headless, messages go to stderr and questions are answered No.
class Desktop {
public:
    enum class Icon { Information, Question, Warning, Critical };

    virtual ~Desktop() = default;
    virtual void messageBox(const QString& title, const QString& text, Icon icon) = 0;
    virtual bool askYesNo(const QString& title, const QString& text) = 0;
    // A message that waits for nobody: the program goes on while it is shown.
    virtual void notice(const QString& title, const QString& text) = 0;
    // Opens a file, or a web address, with the user's default program; nothing headless.
    virtual void openFile(const QString& path) { (void)path; }
    virtual void openAddress(const QString& url) { (void)url; }
    // Details for whoever reads the terminal (where a fatal report came from); not a message box.
    virtual void diagnostic(const QString& text) { (void)text; }
    // Ends the process at once with the given status: no orderly shutdown, nothing saved.
    [[noreturn]] virtual void endProgram(int status) = 0;
};

// Exit statuses of the program.
enum ExitStatus : int {
    ExitOk = 0,
    ExitProgramError = 1, // the fatal program-error report
    ExitRefused = 2,      // a start-up refusal: already running, read-only files, bad folder
};

class HeadlessDesktop : public Desktop {
public:
    void messageBox(const QString& title, const QString& text, Icon icon) override;
    bool askYesNo(const QString& title, const QString& text) override;
    void notice(const QString& title, const QString& text) override;
    void diagnostic(const QString& text) override;
    [[noreturn]] void endProgram(int status) override;
};

// Shared with the desktop plugin's message boxes: a line for the terminal, and the end of the
// process at once.
void writeToStderr(const QString& title, const QString& text);
[[noreturn]] void exitNow(int status);

} // namespace postiq
