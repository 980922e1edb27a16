#pragma once

#include <QPointer>
#include <QWidget>
#include <functional>

#include "ui/route_list.h"

class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTableWidget;

namespace postiq {

class Logs;
class RouteCheck;
class Settings;

// The dialog's page of the routes of Routes.ini: the outgoing server chosen by the sender's
// address. A list with Add, Edit, Remove and Check; Add and Edit open a form under the list (no
// window that would wait for an answer while mail flows). Changes are kept until the dialog's
// "Ecrire" writes them; a faulty Routes.ini shows its errors and its good routes.
class RoutesPage : public QWidget {
    Q_OBJECT
public:
    using Text = std::function<QString(const char* name, const QString& french)>;

    RoutesPage(Settings& settings, Logs& logs, Text text, QWidget* parent = nullptr);
    ~RoutesPage() override;

    // Writes Routes.ini and the passwords when the list was changed, with an open form's route.
    // False, with the reason on the page, when the form's route is refused or the file could not
    // be written.
    bool write();

    const RouteList& list() const { return list_; }

private:
    void buildList();
    void buildForm();
    void showRoutes();
    void showFileErrors(const QStringList& errors);
    void updateButtons();
    int selectedRow() const;

    void openForm(int editing);
    void acceptForm();
    void closeForm();
    void removeSelected();
    void checkSelected();

    void say(const QString& line, bool fault = false);
    QString problemText(DraftProblem problem, const RouteDraft& draft) const;
    QString text(const char* name, const QString& french) const { return text_ ? text_(name, french) : french; }

    Settings& settings_;
    Logs& logs_;
    Text text_;
    RouteList list_;
    int editing_ = -1; // the entry the form edits; -1: a new route

    QTableWidget* table_ = nullptr;
    QLabel* fileErrors_ = nullptr;
    QLabel* status_ = nullptr;
    QPushButton* add_ = nullptr;
    QPushButton* edit_ = nullptr;
    QPushButton* remove_ = nullptr;
    QPushButton* check_ = nullptr;
    QGroupBox* form_ = nullptr;
    QLineEdit* name_ = nullptr;
    QLineEdit* senders_ = nullptr;
    QLineEdit* server_ = nullptr;
    QComboBox* fallback_ = nullptr;
    QLineEdit* password_ = nullptr;
    QLabel* formProblem_ = nullptr;
    QPointer<RouteCheck> running_;
};

} // namespace postiq
