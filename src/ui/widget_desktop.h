#pragma once

#include <QHash>
#include <QPointer>
#include <QString>

#include "platform/desktop.h"

class QMessageBox;

namespace postiq {

// Message boxes on the desktop. The modal ones (messageBox, askYesNo) are for start-up, before the
// event loop runs, and for the fatal report; a notice is shown without waiting, and one that is
// still on screen is not opened a second time, so that a fault repeated by many sessions leaves a
// single box.
class WidgetDesktop : public Desktop {
public:
    ~WidgetDesktop() override;
    void messageBox(const QString& title, const QString& text, Icon icon) override;
    bool askYesNo(const QString& title, const QString& text) override;
    void notice(const QString& title, const QString& text) override;
    void openFile(const QString& path) override;
    void openAddress(const QString& url) override;
    void diagnostic(const QString& text) override;
    [[noreturn]] void endProgram(int status) override;

    // The notice boxes on screen now.
    int openNotices() const;

private:
    QHash<QString, QPointer<QMessageBox>> notices_;
};

} // namespace postiq
