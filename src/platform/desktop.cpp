#include "platform/desktop.h"

#include <cstdio>
#include <cstdlib>

namespace postiq {

void writeToStderr(const QString& title, const QString& text)
{
    QByteArray out = title.isEmpty() ? QByteArray() : title.toUtf8() + ": ";
    out += text.toUtf8() + '\n';
    std::fwrite(out.constData(), 1, size_t(out.size()), stderr);
    std::fflush(stderr);
}

[[noreturn]] void exitNow(int status)
{
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}

void HeadlessDesktop::messageBox(const QString& title, const QString& text, Icon)
{
    writeToStderr(title, text);
}

bool HeadlessDesktop::askYesNo(const QString& title, const QString& text)
{
    writeToStderr(title, text + "\n(no one to answer: No)");
    return false;
}

void HeadlessDesktop::notice(const QString& title, const QString& text) { writeToStderr(title, text); }

void HeadlessDesktop::diagnostic(const QString& text) { writeToStderr(QString(), text); }

void HeadlessDesktop::endProgram(int status) { exitNow(status); }

} // namespace postiq
