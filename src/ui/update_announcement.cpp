#include "ui/update_announcement.h"

#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "language/language.h"

namespace postiq {

namespace {
QLabel* colouredLine(QWidget* parent, const QString& name, const QString& text, const char* colour, bool bold)
{
    auto* label = new QLabel(text, parent);
    label->setObjectName(name);
    label->setStyleSheet(QStringLiteral("color: %1;%2").arg(QLatin1String(colour),
                                                             bold ? QStringLiteral(" font-weight: bold;") : QString()));
    return label;
}
} // namespace

UpdateAnnouncement::UpdateAnnouncement(const QString& newVersion, const QString& localVersion,
                                       std::function<void()> openUpdater, QWidget* parent)
    : QWidget(parent, Qt::Window), newVersion_(newVersion), localVersion_(localVersion),
      openUpdater_(std::move(openUpdater))
{
    setObjectName(QStringLiteral("FRMExistUpdate"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(QStringLiteral("Postiq"));
    setWindowIcon(QIcon(QStringLiteral(":/icons/tray_event.svg")));

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(colouredLine(this, QStringLiteral("lblNewVersion"),
                                   QStringLiteral(" La version ") + newVersion + QStringLiteral(" est disponible !"),
                                   "#1d7a2e", true));
    layout->addWidget(colouredLine(this, QStringLiteral("lblCurrentVersion"),
                                   QStringLiteral(" Version actuelle: ") + localVersion, "#2d4d7a", false));
    auto* update = new QPushButton(QStringLiteral("Mettre à jour"), this);
    update->setObjectName(QStringLiteral("btnUpdate"));
    layout->addWidget(update, 0, Qt::AlignRight);
    connect(update, &QPushButton::clicked, this, [this] {
        if (openUpdater_)
            openUpdater_();
        close();
    });

    tmrTimeOut.setObjectName(QStringLiteral("tmrTimeOut"));
    tmrTimeOut.setSingleShot(true);
    tmrTimeOut.setInterval(kTimeout);
    connect(&tmrTimeOut, &QTimer::timeout, this, &QWidget::close);
    tmrTimeOut.start();
}

void UpdateAnnouncement::useLanguage(const LanguageTable& language)
{
    findChild<QLabel*>(QStringLiteral("lblNewVersion"))
        ->setText(language.text(QStringLiteral("newVersion"), QStringLiteral(" La version %1 est disponible !"))
                      .arg(newVersion_));
    findChild<QLabel*>(QStringLiteral("lblCurrentVersion"))
        ->setText(language.text(QStringLiteral("currentVersion"), QStringLiteral(" Version actuelle: %1"))
                      .arg(localVersion_));
    findChild<QPushButton*>(QStringLiteral("btnUpdate"))
        ->setText(language.text(QStringLiteral("update"), QStringLiteral("Mettre à jour")));
}

} // namespace postiq
