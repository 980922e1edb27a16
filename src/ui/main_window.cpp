#include "ui/main_window.h"

#include <QCloseEvent>
#include <QHeaderView>
#include <QIcon>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "core/connection_state_text.h"
#include "language/language.h"
#include "smtp_in/connexion.h"

namespace postiq {

MainWindow::MainWindow(const LanguageTable& language, QWidget* parent)
    : QWidget(parent, Qt::Window), language_(language)
{
    setObjectName(QStringLiteral("mainf"));
    setWindowIcon(QIcon(QStringLiteral(":/icons/icone16.svg")));

    title_ = new QLabel(this);
    title_->setObjectName(QStringLiteral("lblTitle"));
    QFont titleFont = title_->font();
    titleFont.setBold(true);
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    title_->setFont(titleFont);
    lookupVersion_ = new QLabel(this);
    lookupVersion_->setObjectName(QStringLiteral("lblDnsVersion"));

    grid_ = new QTableWidget(0, ColumnCount, this);
    grid_->setObjectName(QStringLiteral("grdConnexions"));
    relabelGrid();
    grid_->verticalHeader()->setVisible(false);
    grid_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grid_->setSelectionBehavior(QAbstractItemView::SelectRows);
    grid_->horizontalHeader()->setStretchLastSection(true);
    grid_->setSortingEnabled(false);

    queueButton_ = new QPushButton(QStringLiteral("File d'attente ..."), this);
    queueButton_->setObjectName(QStringLiteral("btnQueue"));
    connect(queueButton_, &QPushButton::clicked, this, &MainWindow::queueRequested);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(title_);
    layout->addWidget(lookupVersion_);
    layout->addWidget(grid_, 1);
    layout->addWidget(queueButton_, 0, Qt::AlignRight);
    resize(720, 300);
}

void MainWindow::relabelGrid()
{
    const auto heading = [this](const char* name, const char* french) {
        return language_.text(QLatin1String(name), QString::fromUtf8(french));
    };
    grid_->setHorizontalHeaderLabels({heading("colType", "Type"), heading("colNumber", "N°"),
                                      heading("colPeer", "Hôte"), heading("colState", "Etat"),
                                      heading("colMessageId", "ID message"), heading("colFile", "Fichier")});
}

void MainWindow::setTitle(const QString& caption, const QString& title)
{
    setWindowTitle(caption);
    title_->setText(title);
}

void MainWindow::setLookupVersion(const QString& text) { lookupVersion_->setText(text); }

int MainWindow::rowOf(const QByteArray& cnxType, int n) const
{
    for (int row = 0; row < grid_->rowCount(); ++row) {
        if (grid_->item(row, ColType)->text() == QLatin1String(cnxType)
            && grid_->item(row, ColNumber)->text().toInt() == n)
            return row;
    }
    return -1;
}

void MainWindow::showConnection(const CConnexion& cnx, const QByteArray& cnxType, int n)
{
    int row = rowOf(cnxType, n);
    if (cnx.Status() == 0) {
        if (row >= 0)
            grid_->removeRow(row);
        return;
    }
    if (row < 0) {
        row = grid_->rowCount();
        grid_->insertRow(row);
        for (int column = 0; column < ColumnCount; ++column)
            grid_->setItem(row, column, new QTableWidgetItem);
    }
    grid_->item(row, ColType)->setText(QString::fromLatin1(cnxType));
    grid_->item(row, ColNumber)->setText(QString::number(n));
    grid_->item(row, ColPeer)->setText(QString::fromUtf8(cnx.SrvClient));
    grid_->item(row, ColState)->setText(connectionStateText(cnxType, cnx.Status(), language_));
    grid_->item(row, ColMessageId)->setText(QString::fromUtf8(cnx.Message.ID));
    grid_->item(row, ColFile)->setText(cnx.CurrentOutFile);
}

void MainWindow::setAlwaysOnTop(bool onTop)
{
    const bool visible = isVisible();
    setWindowFlag(Qt::WindowStaysOnTopHint, onTop);
    if (visible)
        show(); // changing the flags hides the window
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (closeAllowed_) {
        event->accept();
        return;
    }
    event->ignore();
    if (noTrayText_)
        askToQuit();
    else
        hide(); // the program stays in the notification area
}

// Nothing else on screen leads back to the program: hiding would leave it running out of reach.
// The question waits without stopping the relay.
void MainWindow::askToQuit()
{
    if (quitQuestion_ && quitQuestion_->isVisible()) {
        quitQuestion_->raise();
        return;
    }
    quitQuestion_ = new QMessageBox(QMessageBox::Question, noTrayText_("quitTitle", QStringLiteral("Postiq")),
                                    noTrayText_("quitQuestion", QStringLiteral("Fermer cette fenêtre arrête Postiq : "
                                                                                "plus aucun message ne sera envoyé ni "
                                                                                "reçu. Quitter Postiq ?")),
                                    QMessageBox::Yes | QMessageBox::No, this);
    quitQuestion_->setObjectName(QStringLiteral("msgQuit"));
    quitQuestion_->setDefaultButton(QMessageBox::No);
    quitQuestion_->setAttribute(Qt::WA_DeleteOnClose);
    connect(quitQuestion_, &QMessageBox::finished, this, [this](int result) {
        if (result == QMessageBox::Yes)
            emit quitRequested();
    });
    quitQuestion_->open();
}

void MainWindow::setNoTray(std::function<QString(const char* name, const QString& french)> text)
{
    noTrayText_ = std::move(text);
}

} // namespace postiq
