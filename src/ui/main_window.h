#pragma once

#include <QByteArray>
#include <QMessageBox>
#include <QPointer>
#include <QWidget>
#include <functional>

class QLabel;
class QPushButton;
class QTableWidget;

namespace postiq {

class CConnexion;
class LanguageTable;

// The small main window: the title, the resolver's version, one grid row per busy connection slot
// and the way to the queue window. Where a notification area holds the program, its close box only
// hides it and the program ends through the menu; where there is none, the window is the program's
// face, and its close box asks whether to quit.
class MainWindow : public QWidget {
    Q_OBJECT
public:
    enum Column { ColType, ColNumber, ColPeer, ColState, ColMessageId, ColFile, ColumnCount };

    // The language gives the words the window composes itself: the grid's headings and states.
    explicit MainWindow(const LanguageTable& language, QWidget* parent = nullptr);
    // The headings in the language loaded since the window was made.
    void relabelGrid();

    void setTitle(const QString& caption, const QString& title);
    void setLookupVersion(const QString& text);
    // Brings the slot's row up to date: a busy slot gets or refreshes its row, a free one loses it.
    void showConnection(const CConnexion& cnx, const QByteArray& cnxType, int n);
    // Lets the next close really close (the end of the program).
    void allowClose() { closeAllowed_ = true; }
    // Keeps the window above all others, or lets it go back among them.
    void setAlwaysOnTop(bool onTop);
    // Without a notification area closing means quitting, once the user says so; `text` gives the
    // question's words in the loaded language.
    void setNoTray(std::function<QString(const char* name, const QString& french)> text);
    // The quit question while it waits for its answer.
    QMessageBox* quitQuestion() const { return quitQuestion_; }
    QPushButton& queueButton() { return *queueButton_; }

    QTableWidget& grid() { return *grid_; }

signals:
    void queueRequested();
    void quitRequested();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    int rowOf(const QByteArray& cnxType, int n) const;
    void askToQuit();

    QLabel* title_ = nullptr;
    QLabel* lookupVersion_ = nullptr;
    QTableWidget* grid_ = nullptr;
    QPushButton* queueButton_ = nullptr;
    const LanguageTable& language_;
    bool closeAllowed_ = false;
    std::function<QString(const char* name, const QString& french)> noTrayText_; // set: no tray
    QPointer<QMessageBox> quitQuestion_;
};

} // namespace postiq
