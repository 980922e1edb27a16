#pragma once

#include <QString>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <functional>

namespace postiq {

class LanguageTable;

// The window that announces a newer version. It waits for nobody: it is shown, not run, and it
// closes by itself after kTimeout so that an unattended relay never piles them up.
class UpdateAnnouncement : public QWidget {
    Q_OBJECT
public:
    static constexpr std::chrono::seconds kTimeout{60};

    // `openUpdater` runs when the user takes the update (btnUpdate); the window closes after it.
    UpdateAnnouncement(const QString& newVersion, const QString& localVersion, std::function<void()> openUpdater,
                       QWidget* parent = nullptr);

    // The window's words in the chosen language.
    void useLanguage(const LanguageTable& language);

    QTimer tmrTimeOut;

private:
    QString newVersion_;
    QString localVersion_;
    std::function<void()> openUpdater_;
};

} // namespace postiq
