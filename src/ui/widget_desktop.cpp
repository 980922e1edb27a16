#include "ui/widget_desktop.h"

#include <QDesktopServices>
#include <QMessageBox>
#include <QUrl>

namespace postiq {

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
    // Modal on purpose, and only where nothing else may run: the start-up refusals and questions
    // come before the event loop starts, and the fatal report has silenced the relay first.
    // Everything shown while mail flows goes through notice().
    box.exec();
}

bool WidgetDesktop::askYesNo(const QString& title, const QString& text)
{
    return QMessageBox::question(nullptr, title, text, QMessageBox::Yes | QMessageBox::No)
        == QMessageBox::Yes;
}

WidgetDesktop::~WidgetDesktop()
{
    for (const QPointer<QMessageBox>& box : std::as_const(notices_))
        delete box.data();
}

void WidgetDesktop::notice(const QString& title, const QString& text)
{
    const QString shownTitle = title.isEmpty() ? QStringLiteral("Postiq") : title;
    QPointer<QMessageBox>& open = notices_[shownTitle + u'\n' + text];
    if (open && open->isVisible())
        return;
    auto* box = new QMessageBox(QMessageBox::Information, shownTitle, text);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    box->show();
    open = box;
}

int WidgetDesktop::openNotices() const
{
    int count = 0;
    for (const QPointer<QMessageBox>& box : notices_)
        count += box && box->isVisible() ? 1 : 0;
    return count;
}

void WidgetDesktop::openFile(const QString& path) { QDesktopServices::openUrl(QUrl::fromLocalFile(path)); }

void WidgetDesktop::openAddress(const QString& url) { QDesktopServices::openUrl(QUrl(url)); }

void WidgetDesktop::diagnostic(const QString& text) { writeToStderr(QString(), text); }

void WidgetDesktop::endProgram(int status) { exitNow(status); }

} // namespace postiq
