#pragma once

#include <QByteArrayList>
#include <QMessageBox>
#include <QPointer>
#include <QWidget>
#include <functional>

#include "core/control_channel.h"
#include "store/queue.h"

class QLabel;
class QLineEdit;
class QPushButton;
class QSortFilterProxyModel;
class QTableView;

namespace postiq {

class Logs;
class QueueModel;

// The queue in a window: one row per message of OutBox, Deferred and Error, sortable by any
// column and narrowed by a filter box, with the actions Retry now, Delete (after a question that
// does not stop the relay), Show text and Open folder. The relay's own commands do the work; the
// window never moves a file itself.
class QueueWindow : public QWidget {
    Q_OBJECT
public:
    struct Services {
        Queue& queue;
        Logs& logs;
        std::function<int()> attemptDelayMinutes;
        // Carries out "retry" or "delete" for one message ID in the relay.
        std::function<ControlAnswer(const QByteArray& verb, const QByteArray& id)> command;
        std::function<void(const QString& path)> openFolder;
        // The window's captions from the loaded language, and its other texts.
        std::function<void(QWidget& form)> relabel;
        std::function<QString(const char* name, const QString& french)> text;
    };

    explicit QueueWindow(Services services, QWidget* parent = nullptr);
    ~QueueWindow() override;

    QueueModel& model() { return *model_; }
    QSortFilterProxyModel& proxy() { return *proxy_; }
    QTableView& view() { return *view_; }
    QLineEdit& filter() { return *filter_; }
    // The question of a Delete while it waits for its answer.
    QMessageBox* deleteQuestion() const { return question_; }

    // The IDs of the selected rows, in the order shown.
    QByteArrayList selectedIds() const;
    void selectId(const QByteArray& id);

    void retrySelected();
    void deleteSelected();   // asks first
    void showSelectedText(); // one viewer per selected message (at most a few)
    void openFolder();       // the selected message's folder, else OutBox

    // The icon follows the service's state, as the main window's does.
    void setServiceIcon(const QIcon& icon) { setWindowIcon(icon); }

private:
    void buildLayout();
    void carryOut(const QByteArray& verb, const QByteArrayList& ids);
    void updateButtons();
    void updateCount();
    QString text(const char* name, const QString& french) const { return services_.text(name, french); }

    Services services_;
    QueueModel* model_ = nullptr;
    QSortFilterProxyModel* proxy_ = nullptr;
    QTableView* view_ = nullptr;
    QLineEdit* filter_ = nullptr;
    QLabel* count_ = nullptr;
    QLabel* status_ = nullptr;
    QPushButton* retry_ = nullptr;
    QPushButton* delete_ = nullptr;
    QPushButton* showText_ = nullptr;
    QPushButton* openFolder_ = nullptr;
    QPointer<QMessageBox> question_;
};

} // namespace postiq
