#include "platform/desktop.h"

#include <QMessageBox>
#include <cstdio>
#include <cstdlib>

namespace postiq {

namespace {
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
} // namespace

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

void WidgetDesktop::messageBox(const QString& title, const QString& text, Icon icon)
{
    QMessageBox::Icon kind = QMessageBox::Information;
    switch (icon) {
    case Icon::Information: kind = QMessageBox::Information; break;
    case Icon::Question: kind = QMessageBox::Question; break;
    case Icon::Warning: kind = QMessageBox::Warning; break;
    case Icon::Critical: kind = QMessageBox::Critical; break;
    }
    QMessageBox box(kind, title.isEmpty() ? QStringLiteral("Postiq") : title, text);
    box.exec();
}

bool WidgetDesktop::askYesNo(const QString& title, const QString& text)
{
    return QMessageBox::question(nullptr, title, text, QMessageBox::Yes | QMessageBox::No)
        == QMessageBox::Yes;
}

void WidgetDesktop::notice(const QString& title, const QString& text)
{
    auto* box = new QMessageBox(QMessageBox::Information, title.isEmpty() ? QStringLiteral("Postiq") : title, text);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    box->show();
}

void WidgetDesktop::diagnostic(const QString& text) { writeToStderr(QString(), text); }

void WidgetDesktop::endProgram(int status) { exitNow(status); }

} // namespace postiq
