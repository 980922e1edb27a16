#include "ui/routes_page.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "config/settings.h"
#include "delivery/route_check.h"
#include "log/logs.h"
#include "ui/route_files.h"

namespace postiq {

namespace {

enum Column { NameColumn, SendersColumn, ServerColumn, FallbackColumn, ColumnCount };

QLabel* wrappedLabel(const QString& name, const QString& caption, QWidget* parent)
{
    auto* label = new QLabel(caption, parent);
    label->setObjectName(name);
    label->setWordWrap(true);
    return label;
}

QPushButton* button(const QString& name, const QString& caption, QWidget* parent)
{
    auto* made = new QPushButton(caption, parent);
    made->setObjectName(name);
    return made;
}

QLineEdit* field(const QString& name, QWidget* parent)
{
    auto* made = new QLineEdit(parent);
    made->setObjectName(name);
    made->setMinimumWidth(260);
    return made;
}

void markFault(QLabel* label, bool fault) { label->setStyleSheet(fault ? QStringLiteral("color: #b00000") : QString()); }

} // namespace

RoutesPage::RoutesPage(Settings& settings, Logs& logs, Text text, QWidget* parent)
    : QWidget(parent), settings_(settings), logs_(logs), text_(std::move(text))
{
    setObjectName(QStringLiteral("pnlRoutes"));
    buildList();
    buildForm();

    // A faulty file shows what it could read: its good routes, and a line per fault.
    const RouteTable table = RouteTable::load(logs_.folder());
    list_ = RouteList(table.routes());
    showFileErrors(table.errors());
    showRoutes();
}

RoutesPage::~RoutesPage() = default;

void RoutesPage::buildList()
{
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(wrappedLabel(
        QStringLiteral("lblRoutes"),
        QStringLiteral("Serveur sortant choisi selon l'adresse de l'expéditeur (fichier Routes.ini); la première "
                       "route dont un motif correspond l'emporte:"),
        this));

    table_ = new QTableWidget(0, ColumnCount, this);
    table_->setObjectName(QStringLiteral("lstRoutes"));
    table_->setHorizontalHeaderLabels({text("routesColName", QStringLiteral("Nom")),
                                       text("routesColSenders", QStringLiteral("Expéditeurs")),
                                       text("routesColServer", QStringLiteral("Serveur")),
                                       text("routesColFallback", QStringLiteral("Secours"))});
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->verticalHeader()->hide();
    table_->setWordWrap(false);
    // Long addresses are cut short in the list rather than pushing the fallback out of sight.
    QHeaderView* header = table_->horizontalHeader();
    header->setSectionResizeMode(NameColumn, QHeaderView::ResizeToContents);
    header->setSectionResizeMode(SendersColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(ServerColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(FallbackColumn, QHeaderView::ResizeToContents);
    table_->setMinimumHeight(110);
    column->addWidget(table_, 1);

    fileErrors_ = wrappedLabel(QStringLiteral("lblRouteErrors"), QString(), this);
    markFault(fileErrors_, true);
    fileErrors_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(fileErrors_);

    add_ = button(QStringLiteral("btnRouteAdd"), QStringLiteral("Ajouter"), this);
    edit_ = button(QStringLiteral("btnRouteEdit"), QStringLiteral("Modifier"), this);
    remove_ = button(QStringLiteral("btnRouteRemove"), QStringLiteral("Supprimer"), this);
    check_ = button(QStringLiteral("btnRouteCheck"), QStringLiteral("Vérifier"), this);
    auto* buttons = new QHBoxLayout;
    for (QPushButton* each : {add_, edit_, remove_, check_})
        buttons->addWidget(each);
    buttons->addStretch(1);
    column->addLayout(buttons);
    status_ = wrappedLabel(QStringLiteral("lblRouteStatus"), QString(), this);
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(status_);

    connect(add_, &QPushButton::clicked, this, [this] { openForm(-1); });
    connect(edit_, &QPushButton::clicked, this, [this] { openForm(selectedRow()); });
    connect(remove_, &QPushButton::clicked, this, &RoutesPage::removeSelected);
    connect(check_, &QPushButton::clicked, this, &RoutesPage::checkSelected);
    connect(table_, &QTableWidget::itemSelectionChanged, this, &RoutesPage::updateButtons);
    connect(table_, &QTableWidget::cellDoubleClicked, this, [this](int row) {
        if (form_->isHidden())
            openForm(row);
    });
}

void RoutesPage::buildForm()
{
    form_ = new QGroupBox(QStringLiteral("Route"), this);
    form_->setObjectName(QStringLiteral("fraRouteForm"));
    auto* rows = new QFormLayout;
    name_ = field(QStringLiteral("txtRouteName"), form_);
    senders_ = field(QStringLiteral("txtRouteSenders"), form_);
    senders_->setPlaceholderText(QStringLiteral("*@work.example, me@work.example"));
    server_ = field(QStringLiteral("txtRouteServer"), form_);
    server_->setPlaceholderText(QStringLiteral("smtp://me@work.example@smtp.work.example:587"));
    fallback_ = new QComboBox(form_);
    fallback_->setObjectName(QStringLiteral("cboRouteFallback"));
    password_ = field(QStringLiteral("txtRoutePassword"), form_);
    password_->setEchoMode(QLineEdit::Password);
    senders_->setToolTip(QStringLiteral("Adresses ou motifs avec * (n'importe quels caractères), séparés par des virgules"));
    server_->setToolTip(QStringLiteral("smtp://identifiant@hôte[:port] (STARTTLS), smtps://identifiant@hôte[:port] "
                                       "(TLS) ou hôte[:port]"));
    const auto row = [&](const char* label, const QString& caption, QWidget* control) {
        auto* shown = new QLabel(caption, form_);
        shown->setObjectName(QLatin1String(label));
        rows->addRow(shown, control);
    };
    row("lblRouteName", QStringLiteral("Nom:"), name_);
    row("lblRouteSenders", QStringLiteral("Expéditeurs:"), senders_);
    row("lblRouteServer", QStringLiteral("Serveur:"), server_);
    row("lblRouteFallback", QStringLiteral("Route de secours:"), fallback_);
    row("lblRoutePassword", QStringLiteral("Mot de passe:"), password_);

    auto* place = wrappedLabel(
        QStringLiteral("lblRoutePasswordPlace"),
        settings_.keyring
            ? text("routesPasswordInKeyring",
                   QStringLiteral("Le mot de passe est gardé dans le trousseau du bureau; vide: il reste tel quel."))
            : text("routesPasswordInFile", QStringLiteral("Pas de trousseau: le mot de passe est gardé dans le fichier "
                                                          "smtp-password-NOM (mode 0600); vide: il reste tel quel.")),
        form_);
    place->setEnabled(false);
    formProblem_ = wrappedLabel(QStringLiteral("lblRouteProblem"), QString(), form_);
    markFault(formProblem_, true);
    auto* ok = button(QStringLiteral("btnRouteOk"), QStringLiteral("Valider"), form_);
    auto* cancel = button(QStringLiteral("btnRouteCancel"), QStringLiteral("Annuler"), form_);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(ok);
    buttons->addWidget(cancel);
    auto* column = new QVBoxLayout(form_);
    column->addLayout(rows);
    column->addWidget(place);
    column->addWidget(formProblem_);
    column->addLayout(buttons);
    static_cast<QVBoxLayout*>(layout())->addWidget(form_);
    form_->hide();

    connect(ok, &QPushButton::clicked, this, &RoutesPage::acceptForm);
    connect(cancel, &QPushButton::clicked, this, &RoutesPage::closeForm);
    for (QLineEdit* each : {name_, senders_, server_, password_})
        connect(each, &QLineEdit::returnPressed, this, &RoutesPage::acceptForm);
}

void RoutesPage::showRoutes()
{
    const int selected = selectedRow();
    table_->setRowCount(0);
    const QList<RouteList::Entry>& entries = list_.entries();
    table_->setRowCount(int(entries.size()));
    for (int row = 0; row < entries.size(); ++row) {
        const SenderRoute& route = entries[row].route;
        const QStringList cells{route.name, QString::fromUtf8(route.senders.join(", ")), QString::fromUtf8(route.server),
                                route.fallback};
        for (int column = 0; column < ColumnCount; ++column)
            table_->setItem(row, column, new QTableWidgetItem(cells[column]));
    }
    if (selected >= 0 && selected < table_->rowCount())
        table_->selectRow(selected);
    updateButtons();
}

void RoutesPage::showFileErrors(const QStringList& errors)
{
    fileErrors_->setVisible(!errors.isEmpty());
    if (errors.isEmpty()) {
        fileErrors_->clear();
        return;
    }
    // A hostile file can hold thousands of faults: the first few say enough.
    constexpr int kShown = 8;
    QStringList lines = errors.mid(0, kShown);
    for (QString& line : lines)
        line = line.left(300);
    if (errors.size() > kShown)
        lines << QStringLiteral("... (%1)").arg(errors.size() - kShown);
    fileErrors_->setText(text("routesFileErrors", QStringLiteral("Routes.ini contient des erreurs; les routes en faute "
                                                                 "sont laissées de côté et disparaissent à la prochaine "
                                                                 "écriture:"))
                         + u'\n' + lines.join(u'\n'));
}

int RoutesPage::selectedRow() const
{
    const QList<QTableWidgetSelectionRange> ranges = table_->selectedRanges();
    return ranges.isEmpty() ? -1 : ranges.first().topRow();
}

void RoutesPage::updateButtons()
{
    const bool editing = !form_->isHidden();
    const bool selected = selectedRow() >= 0;
    add_->setEnabled(!editing);
    edit_->setEnabled(!editing && selected);
    remove_->setEnabled(!editing && selected);
    check_->setEnabled(selected && !running_);
    table_->setEnabled(!editing);
}

void RoutesPage::openForm(int editing)
{
    if (editing >= list_.entries().size())
        return;
    editing_ = editing;
    const RouteDraft draft = editing >= 0 ? DraftOf(list_.entries()[editing].route) : RouteDraft{};
    name_->setText(draft.name);
    senders_->setText(draft.senders);
    server_->setText(draft.server);
    password_->clear();
    fallback_->clear();
    fallback_->addItem(text("routesNoFallback", QStringLiteral("(aucune)")), QString());
    for (int i = 0; i < list_.entries().size(); ++i)
        if (i != editing)
            fallback_->addItem(list_.entries()[i].route.name, list_.entries()[i].route.name);
    // Routes.ini may name the fallback in other letter case than its section.
    int current = 0;
    for (int i = 1; i < fallback_->count(); ++i)
        if (fallback_->itemData(i).toString().compare(draft.fallback, Qt::CaseInsensitive) == 0)
            current = i;
    fallback_->setCurrentIndex(current);
    formProblem_->clear();
    form_->show();
    name_->setFocus();
    updateButtons();
}

void RoutesPage::acceptForm()
{
    if (form_->isHidden())
        return;
    const RouteDraft draft{name_->text(), senders_->text(), server_->text(), fallback_->currentData().toString()};
    const DraftProblem problem = list_.check(draft, editing_);
    if (problem != DraftProblem::None) {
        formProblem_->setText(problemText(problem, draft));
        return;
    }
    list_.put(draft, password_->text().toUtf8(), editing_);
    const int row = editing_ >= 0 ? editing_ : int(list_.entries().size()) - 1;
    closeForm();
    showRoutes();
    table_->selectRow(row);
    say(text("routesPending", QStringLiteral("Route %1 gardée: « Ecrire la configuration » l'écrit dans Routes.ini."))
            .arg(draft.name.trimmed()));
}

void RoutesPage::closeForm()
{
    password_->clear();
    form_->hide();
    editing_ = -1;
    updateButtons();
}

void RoutesPage::removeSelected()
{
    const int row = selectedRow();
    if (row < 0)
        return;
    const QString name = list_.entries()[row].route.name;
    const QStringList orphans = list_.remove(row);
    showRoutes();
    QString line = text("routesRemoved", QStringLiteral("Route %1 retirée: « Ecrire la configuration » l'ôte de "
                                                        "Routes.ini et oublie son mot de passe."))
                       .arg(name);
    if (!orphans.isEmpty())
        line += u' ' + text("routesOrphans", QStringLiteral("Sans route de secours désormais: %1.")).arg(orphans.join(", "));
    say(line);
}

// The check runs on its own and says its one line when it is done; the dialog goes on meanwhile.
// Closing the dialog deletes the check with the page, and nothing comes back.
void RoutesPage::checkSelected()
{
    const int row = selectedRow();
    if (row < 0 || running_)
        return;
    const SenderRoute route = list_.entries()[row].route;
    running_ = new RouteCheck(logs_, settings_, route, this);
    connect(running_, &RouteCheck::finished, this, [this, check = running_.data()](bool ok, const QString& report) {
        say(report, !ok);
        check->deleteLater();
        running_ = nullptr;
        updateButtons();
    });
    say(text("routesChecking", QStringLiteral("Vérification de la route %1 ...")).arg(route.name));
    updateButtons();
    running_->start();
}

bool RoutesPage::write()
{
    // A form left open is taken as it stands; one that is refused keeps the file as it was.
    if (!form_->isHidden()) {
        acceptForm();
        if (!form_->isHidden()) {
            say(formProblem_->text(), true);
            return false;
        }
    }
    if (!list_.modified())
        return true;
    QString error;
    if (!WriteRoutes(settings_, logs_, list_, this, &error)) {
        say(text("routesWriteFailed", QStringLiteral("Routes.ini n'a pas pu être écrit: %1")).arg(error), true);
        return false;
    }
    showFileErrors({});
    showRoutes();
    say(text("routesWritten", QStringLiteral("Routes.ini écrit: %1 route(s).")).arg(list_.entries().size()));
    return true;
}

void RoutesPage::say(const QString& line, bool fault)
{
    markFault(status_, fault);
    status_->setText(line);
}

QString RoutesPage::problemText(DraftProblem problem, const RouteDraft& draft) const
{
    switch (problem) {
    case DraftProblem::BadName:
        return text("routesBadName", QStringLiteral("Nom invalide: des lettres, des chiffres, '.', '_' ou '-', sans "
                                                    "'.' au début."));
    case DraftProblem::NameTaken:
        return text("routesNameTaken", QStringLiteral("Une route porte déjà le nom %1.")).arg(draft.name.trimmed());
    case DraftProblem::BadSenders:
        return text("routesBadSenders", QStringLiteral("Expéditeurs invalides: des adresses ou des motifs avec *, "
                                                       "séparés par des virgules et sans espace."));
    case DraftProblem::BadServer:
        return text("routesBadServer", QStringLiteral("Serveur invalide: smtp://hôte[:port], smtps://hôte[:port] ou "
                                                      "hôte[:port], avec un nom d'hôte."));
    case DraftProblem::NoSuchFallback:
        return text("routesNoSuchFallback", QStringLiteral("La route de secours %1 n'existe pas."))
            .arg(draft.fallback);
    case DraftProblem::FallbackLoop:
        return text("routesLoop", QStringLiteral("La route de secours %1 ramène à cette route: une boucle n'est pas "
                                                 "permise."))
            .arg(draft.fallback);
    case DraftProblem::None:
        break;
    }
    return {};
}

} // namespace postiq
