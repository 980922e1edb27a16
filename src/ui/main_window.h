#pragma once

#include <QByteArray>
#include <QWidget>

class QLabel;
class QTableWidget;

namespace postiq {

class CConnexion;
class LanguageTable;

// The small main window: the title, the resolver's version and one grid row per busy connection
// slot. Its close box only hides it; the program ends through the menu.
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

    QTableWidget& grid() { return *grid_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    int rowOf(const QByteArray& cnxType, int n) const;

    QLabel* title_ = nullptr;
    QLabel* lookupVersion_ = nullptr;
    QTableWidget* grid_ = nullptr;
    const LanguageTable& language_;
    bool closeAllowed_ = false;
};

} // namespace postiq
