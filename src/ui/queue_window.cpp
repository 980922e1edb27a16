#include "ui/queue_window.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <QVBoxLayout>
#include <algorithm>

#include "ui/message_text_view.h"
#include "ui/queue_model.h"

namespace postiq {

namespace {
// More viewers than this at once is a slip of the mouse, not a wish.
constexpr int kMostViewers = 5;

QPushButton* button(QWidget* parent, const char* name, const QString& caption)
{
    auto* b = new QPushButton(caption, parent);
    b->setObjectName(QLatin1String(name));
    return b;
}
} // namespace

QueueWindow::QueueWindow(Services services, QWidget* parent)
    : QWidget(parent, Qt::Window), services_(std::move(services))
{
    setObjectName(QStringLiteral("frmQueue"));
    setWindowTitle(QStringLiteral("Postiq - File d'attente"));

    QueueModelTexts texts;
    const char* headerNames[] = {"queueColFolder",  "queueColId",       "queueColArrival",   "queueColSender",
                                 "queueColRecipients", "queueColSubject", "queueColSize",   "queueColAttempts",
                                 "queueColLastError",  "queueColNextTry"};
    for (int i = 0; i < QueueModel::ColumnCount; ++i)
        texts.headers[i] = text(headerNames[i], texts.headers[i]);
    texts.nextTryNow = text("queueNextTryNow", texts.nextTryNow);
    texts.unreadable = text("queueUnreadable", texts.unreadable);
    model_ = new QueueModel(services_.queue, services_.logs, services_.attemptDelayMinutes, texts, this);
    proxy_ = new QSortFilterProxyModel(this);
    proxy_->setSourceModel(model_);
    proxy_->setSortRole(Qt::UserRole);
    proxy_->setFilterKeyColumn(-1); // every column
    proxy_->setFilterCaseSensitivity(Qt::CaseInsensitive);
    proxy_->setDynamicSortFilter(true);

    buildLayout();
    services_.relabel(*this);
    updateButtons();
    updateCount();
}

QueueWindow::~QueueWindow() { delete question_; }

void QueueWindow::buildLayout()
{
    auto* filterLabel = new QLabel(QStringLiteral("Filtre :"), this);
    filterLabel->setObjectName(QStringLiteral("lblFilter"));
    filter_ = new QLineEdit(this);
    filter_->setObjectName(QStringLiteral("txtFilter"));
    filter_->setClearButtonEnabled(true);
    filter_->setPlaceholderText(text("queueFilterHint", QStringLiteral("ID, adresse, objet, erreur ...")));
    filterLabel->setBuddy(filter_);
    connect(filter_, &QLineEdit::textChanged, this, [this](const QString& typed) {
        proxy_->setFilterFixedString(typed);
        updateCount();
    });
    count_ = new QLabel(this);
    count_->setObjectName(QStringLiteral("lblCount"));

    view_ = new QTableView(this);
    view_->setObjectName(QStringLiteral("grdQueue"));
    view_->setModel(proxy_);
    view_->setSortingEnabled(true);
    view_->sortByColumn(QueueModel::ColArrival, Qt::AscendingOrder);
    view_->setSelectionBehavior(QAbstractItemView::SelectRows);
    view_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    view_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view_->setWordWrap(false);
    view_->verticalHeader()->setVisible(false);
    // Fixed row heights: thousands of rows are laid out without measuring each.
    view_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    view_->horizontalHeader()->setStretchLastSection(true);
    const int widths[] = {70, 100, 135, 160, 170, 190, 80, 50, 220, 135};
    for (int i = 0; i < QueueModel::ColumnCount; ++i)
        view_->setColumnWidth(i, widths[i]);
    connect(view_, &QTableView::doubleClicked, this, [this] { showSelectedText(); });
    connect(view_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &QueueWindow::updateButtons);
    for (auto signal : {&QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved})
        connect(proxy_, signal, this, &QueueWindow::updateCount);
    connect(proxy_, &QAbstractItemModel::rowsRemoved, this, &QueueWindow::updateButtons);

    retry_ = button(this, "btnRetry", QStringLiteral("Réessayer maintenant"));
    delete_ = button(this, "btnDelete", QStringLiteral("Supprimer"));
    showText_ = button(this, "btnShowText", QStringLiteral("Voir le texte"));
    openFolder_ = button(this, "btnOpenFolder", QStringLiteral("Ouvrir le dossier"));
    connect(retry_, &QPushButton::clicked, this, &QueueWindow::retrySelected);
    connect(delete_, &QPushButton::clicked, this, &QueueWindow::deleteSelected);
    connect(showText_, &QPushButton::clicked, this, &QueueWindow::showSelectedText);
    connect(openFolder_, &QPushButton::clicked, this, &QueueWindow::openFolder);
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("lblStatus"));
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto* top = new QHBoxLayout;
    top->addWidget(filterLabel);
    top->addWidget(filter_, 1);
    top->addWidget(count_);
    auto* buttons = new QHBoxLayout;
    for (QPushButton* b : {retry_, delete_, showText_, openFolder_})
        buttons->addWidget(b);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(view_, 1);
    layout->addLayout(buttons);
    layout->addWidget(status_);
    resize(1200, 420);
}

QByteArrayList QueueWindow::selectedIds() const
{
    QModelIndexList rows = view_->selectionModel()->selectedRows();
    std::sort(rows.begin(), rows.end(), [](const QModelIndex& a, const QModelIndex& b) { return a.row() < b.row(); });
    QByteArrayList ids;
    for (const QModelIndex& index : rows)
        ids << model_->row(proxy_->mapToSource(index).row()).id;
    return ids;
}

void QueueWindow::selectId(const QByteArray& id)
{
    const int at = model_->rowOf(id);
    if (at < 0)
        return;
    const QModelIndex shown = proxy_->mapFromSource(model_->index(at, 0));
    view_->selectionModel()->select(shown, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    view_->scrollTo(shown);
}

void QueueWindow::updateButtons()
{
    const bool any = view_->selectionModel()->hasSelection();
    retry_->setEnabled(any);
    delete_->setEnabled(any);
    showText_->setEnabled(any);
}

void QueueWindow::updateCount()
{
    const QString format = text("queueCount", QStringLiteral("%1 / %2 messages"));
    count_->setText(format.arg(proxy_->rowCount()).arg(model_->rowCount()));
}

void QueueWindow::carryOut(const QByteArray& verb, const QByteArrayList& ids)
{
    QStringList said;
    for (const QByteArray& id : ids) {
        const ControlAnswer answer = services_.command(verb, id);
        said << QString::fromUtf8(answer.text.isEmpty() ? id : answer.text);
    }
    status_->setText(said.join(QStringLiteral(" ; ")));
}

void QueueWindow::retrySelected()
{
    const QByteArrayList ids = selectedIds();
    if (!ids.isEmpty())
        carryOut("retry", ids);
}

void QueueWindow::deleteSelected()
{
    const QByteArrayList ids = selectedIds();
    if (ids.isEmpty())
        return;
    delete question_;
    const QString asked = ids.size() == 1
        ? text("queueDeleteOne", QStringLiteral("Supprimer le message %1 ?")).arg(QString::fromLatin1(ids.first()))
        : text("queueDeleteMany", QStringLiteral("Supprimer les %1 messages choisis ?")).arg(ids.size());
    question_ = new QMessageBox(QMessageBox::Question, text("queueDeleteTitle", QStringLiteral("Supprimer")), asked,
                                QMessageBox::Yes | QMessageBox::No, this);
    question_->setObjectName(QStringLiteral("msgDelete"));
    question_->setDefaultButton(QMessageBox::No);
    question_->setAttribute(Qt::WA_DeleteOnClose);
    // Window-modal at most, and answered through a signal: the relay runs on while it waits. The
    // IDs asked about are the ones deleted, whatever the selection has become meanwhile.
    connect(question_, &QMessageBox::finished, this, [this, ids](int result) {
        if (result == QMessageBox::Yes)
            carryOut("delete", ids);
    });
    question_->open();
}

void QueueWindow::showSelectedText()
{
    const QByteArrayList ids = selectedIds();
    MessageTextView::Texts texts;
    texts.title = text("queueTextTitle", texts.title);
    texts.truncated = text("queueTextTruncated", texts.truncated);
    texts.unreadable = text("queueTextUnreadable", texts.unreadable);
    for (qsizetype i = 0; i < std::min<qsizetype>(ids.size(), kMostViewers); ++i) {
        const QueueRow& row = model_->row(model_->rowOf(ids[i]));
        auto* viewer = new MessageTextView(services_.queue, services_.logs, row.folder, row.id, texts, this);
        viewer->setWindowIcon(windowIcon());
        viewer->show();
    }
}

void QueueWindow::openFolder()
{
    const QByteArrayList ids = selectedIds();
    const QueueFolder folder = ids.isEmpty() ? QueueFolder::OutBox : model_->row(model_->rowOf(ids.first())).folder;
    services_.openFolder(services_.queue.folderPath(folder));
}

} // namespace postiq
