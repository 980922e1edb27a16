#include "ui/configuration_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "config/config_file.h"
#include "config/settings.h"
#include "config/smtp_password.h"
#include "log/logs.h"
#include "platform/program_folder.h"
#include "ui/password_store.h"
#include "ui/routes_page.h"

namespace postiq {

namespace {
constexpr int kNodeKeyRole = Qt::UserRole;
constexpr int kNodeIconRole = Qt::UserRole + 1;
constexpr int kIconSize = 32;

QString iconPath(const QString& name) { return QStringLiteral(":/icons/") + name + QStringLiteral(".svg"); }

// "smtp://me@example.net@host:587" as the server without its login ("smtp://host:587") and the
// login ("me@example.net"); the host follows the last "@". A plain "host[:port]" has no login.
QPair<QString, QString> splitLogin(const QString& server)
{
    const qsizetype scheme = server.indexOf(QLatin1String("://"));
    const qsizetype at = server.lastIndexOf(u'@');
    if (scheme < 0 || at < scheme)
        return {server, QString()};
    return {server.left(scheme + 3) + server.mid(at + 1),
            QUrl::fromPercentEncoding(server.mid(scheme + 3, at - scheme - 3).toUtf8())};
}

// The server with `login` put in; an empty login keeps the one written in the server's text.
QString joinLogin(const QString& server, const QString& login)
{
    if (login.isEmpty())
        return server;
    const QString bare = splitLogin(server).first;
    const qsizetype scheme = bare.indexOf(QLatin1String("://"));
    if (scheme < 0)
        return server; // a plain server logs in nowhere
    return bare.left(scheme + 3) + QString::fromLatin1(QUrl::toPercentEncoding(login, "@")) + u'@'
        + bare.mid(scheme + 3);
}
} // namespace

ConfigurationDialog::ConfigurationDialog(Settings& settings, Logs& logs, std::function<void()> applyWritten,
                                         Texts texts, QWidget* parent)
    : QWidget(parent, Qt::Window), settings_(settings), logs_(logs), applyWritten_(std::move(applyWritten)),
      texts_(std::move(texts))
{
    setObjectName(QStringLiteral("FRMConfiguration"));
    setWindowTitle(QStringLiteral("Configuration Postiq"));
    setWindowIcon(QIcon(iconPath(QStringLiteral("icone16"))));

    categories_ = new QTreeWidget(this);
    categories_->setObjectName(QStringLiteral("Categories"));
    categories_->setHeaderHidden(true);
    categories_->setRootIsDecorated(false);
    categories_->setFixedWidth(190);
    pages_ = new QStackedWidget(this);
    pages_->setObjectName(QStringLiteral("SSTabCat"));
    title_ = new QLabel(this);
    title_->setObjectName(QStringLiteral("strCategorie"));
    QFont titleFont = title_->font();
    titleFont.setBold(true);
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.3);
    title_->setFont(titleFont);
    image_ = new QLabel(this);
    image_->setObjectName(QStringLiteral("imgCat"));
    image_->setFixedSize(kIconSize, kIconSize);

    buildPages();

    auto* writeButton = new QPushButton(QStringLiteral("Ecrire la configuration"), this);
    writeButton->setObjectName(QStringLiteral("btnWrite"));
    auto* closeButton = new QPushButton(QStringLiteral("&Fermer"), this);
    closeButton->setObjectName(QStringLiteral("btnClose"));
    connect(writeButton, &QPushButton::clicked, this, &ConfigurationDialog::btnWrite_Click);
    connect(closeButton, &QPushButton::clicked, this, &QWidget::close);
    connect(categories_, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem* item) { nodeClicked(item); });

    auto* header = new QHBoxLayout;
    header->addWidget(image_);
    header->addWidget(title_, 1);
    auto* right = new QVBoxLayout;
    right->addLayout(header);
    right->addWidget(pages_, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(writeButton);
    buttons->addWidget(closeButton);
    right->addLayout(buttons);
    auto* layout = new QHBoxLayout(this);
    layout->addWidget(categories_);
    layout->addLayout(right, 1);
    resize(720, 460);

    // Labels first, then the values: the shared words come with the language.
    texts_.relabel(*this);
    applySharedWords();
    fillFromSettings();
    nodeClicked(categories_->topLevelItem(0));
}

ConfigurationDialog::~ConfigurationDialog() = default;

void ConfigurationDialog::buildPages()
{
    QWidget* page = addPage(QStringLiteral("frmOnStart"), QStringLiteral("cat_onstart_0"),
                            QStringLiteral("Démarrage Postiq"), QStringLiteral("icone16"));
    addBoolean(page, QStringLiteral("LaunchStart"), QStringLiteral("Démarrer le service SMTP au lancement de Postiq:"),
               &CConfiguration::LaunchStart, &CConfiguration::LaunchStartDefined);

    page = addPage(QStringLiteral("frmComputer"), QStringLiteral("cat_computer_1"),
                   QStringLiteral("Démarrage ordinateur"), QStringLiteral("pc16"));
    addBoolean(page, QStringLiteral("ComputerStart"),
               QStringLiteral("Lancer Postiq à l'ouverture de la session:"), &CConfiguration::ComputerStart,
               &CConfiguration::ComputerStartDefined);

    page = addPage(QStringLiteral("frmParametres"), QStringLiteral("cat_parameters_2"), QStringLiteral("Paramètres"),
                   QStringLiteral("config16"));
    addBoolean(page, QStringLiteral("KeepLocal"),
               QStringLiteral("Accepter les mails mais les garder dans 'OutBox':"), &CConfiguration::KeepLocal,
               &CConfiguration::KeepLocalDefined);
    addNumber(page, QStringLiteral("MaxNbrAttempt"), QStringLiteral("Nombre maximal de tentatives d'envoi:"), 0, 255,
              [](const CConfiguration& c) { return int(c.MaxNbrAttempt); },
              [](CConfiguration& c, int v) { c.MaxNbrAttempt = uint8_t(v); }, &CConfiguration::MaxNbrAttemptDefined);
    addNumber(page, QStringLiteral("AttemptDelay"),
              QStringLiteral("Minutes avant la prochaine tentative d'envoi:"), -32768, 32767,
              [](const CConfiguration& c) { return int(c.AttemptDelay); },
              [](CConfiguration& c, int v) { c.AttemptDelay = int16_t(v); }, &CConfiguration::AttemptDelayDefined);

    page = addPage(QStringLiteral("frmNetwork"), QStringLiteral("cat_network_5"), QStringLiteral("Réseau"),
                   QStringLiteral("network16"));
    addText(page, QStringLiteral("DNSServer"), QStringLiteral("Serveur DNS:"), &CConfiguration::DNSServer,
            &CConfiguration::DNSServerDefined);
    addNumber(page, QStringLiteral("ListenPort"), QStringLiteral("Port d'écoute SMTP:"), -32768, 32767,
              [](const CConfiguration& c) { return int(c.ListenPort); },
              [](CConfiguration& c, int v) { c.ListenPort = int16_t(v); }, &CConfiguration::ListenPortDefined);

    page = addPage(QStringLiteral("frmServer"), QStringLiteral("cat_server_7"), QStringLiteral("Serveur sortant"),
                   QStringLiteral("network16"));
    addText(page, QStringLiteral("SmtpServer"), QStringLiteral("Serveur SMTP (pour tout message sortant):"),
            &CConfiguration::SmtpServer, &CConfiguration::SmtpServerDefined);
    server_ = page->findChild<QLineEdit*>(QStringLiteral("SmtpServer"));
    addServerUser(page);
    addPassword(page);

    page = addPage(QStringLiteral("frmRoutes"), QStringLiteral("cat_routes_8"), QStringLiteral("Routes"),
                   QStringLiteral("network16"));
    routes_ = new RoutesPage(settings_, logs_, texts_.text, page);
    static_cast<QVBoxLayout*>(page->layout())->addWidget(routes_, 1);

    page = addPage(QStringLiteral("frmRelay"), QStringLiteral("cat_relay_6"), QStringLiteral("Relai"), QString());
    addBoolean(page, QStringLiteral("Relay"), QStringLiteral("Etre serveur de relai pour le réseau 192.168.x.x:"),
               &CConfiguration::Relay, &CConfiguration::RelayDefined);

    page = addPage(QStringLiteral("frmDebug"), QStringLiteral("cat_debug_3"), QStringLiteral("Débuggage"),
                   QStringLiteral("debug16"));
    addBoolean(page, QStringLiteral("DebugMode"), QStringLiteral("Ecrire le journal de débogage 'Debug.html':"),
               &CConfiguration::DebugMode, &CConfiguration::DebugModeDefined);

    page = addPage(QStringLiteral("frmLanguage"), QStringLiteral("cat_language_4"), QStringLiteral("Langue"),
                   QStringLiteral("language16"));
    addLanguage(page);

    // Every page but the routes' (whose list takes the height) keeps its settings at the top.
    for (int i = 0; i < pages_->count(); ++i)
        if (pages_->widget(i) != routes_->parentWidget())
            static_cast<QVBoxLayout*>(pages_->widget(i)->layout())->addStretch(1);
}

QWidget* ConfigurationDialog::addPage(const QString& frameName, const QString& nodeKey, const QString& caption,
                                      const QString& icon)
{
    auto* page = new QWidget;
    page->setObjectName(frameName);
    new QVBoxLayout(page);
    pages_->addWidget(page);

    auto* node = new QTreeWidgetItem(categories_, QStringList{caption});
    node->setData(0, kNodeKeyRole, nodeKey);
    node->setData(0, kNodeIconRole, icon);
    if (!icon.isEmpty())
        node->setIcon(0, QIcon(iconPath(icon)));
    return page;
}

// Each setting shows its label, its control(s), then its check box with the default beside it.
void ConfigurationDialog::addSetting(QWidget* page, const QString& name, const QString& caption, QWidget* editor,
                                     QList<QWidget*> controls, bool CConfiguration::*flag,
                                     std::function<void(const CConfiguration&)> show,
                                     std::function<void(CConfiguration&)> take,
                                     std::function<QString(const CConfiguration&)> defaultText)
{
    auto* column = static_cast<QVBoxLayout*>(page->layout());
    auto* label = new QLabel(caption, page);
    label->setObjectName(QStringLiteral("lbl") + name);
    column->addWidget(label);
    auto* line = new QHBoxLayout;
    line->addSpacing(12);
    line->addWidget(editor);
    line->addStretch(1);
    column->addLayout(line);
    auto* boxLine = new QHBoxLayout;
    boxLine->addSpacing(12);
    auto* box = new QCheckBox(page);
    box->setObjectName(name + QStringLiteral("Default"));
    boxLine->addWidget(box);
    boxLine->addStretch(1);
    auto* shownDefault = new QLabel(page);
    shownDefault->setObjectName(QStringLiteral("lbl") + name + QStringLiteral("DefaultValue"));
    shownDefault->setEnabled(false);
    boxLine->addWidget(shownDefault);
    column->addLayout(boxLine);
    column->addSpacing(10);

    connect(box, &QCheckBox::toggled, this, [controls](bool checked) {
        for (QWidget* control : controls)
            control->setEnabled(checked);
    });
    bindings_.push_back({box, controls, shownDefault, flag, std::move(show), std::move(take),
                         std::move(defaultText)});
}

void ConfigurationDialog::addBoolean(QWidget* page, const QString& name, const QString& caption,
                                     bool CConfiguration::*value, bool CConfiguration::*flag)
{
    // The pair is exclusive by sharing a container of its own.
    auto* pair = new QWidget(page);
    auto* yes = new QRadioButton(pair);
    yes->setObjectName(QStringLiteral("opt") + name + QStringLiteral("Yes"));
    auto* no = new QRadioButton(pair);
    no->setObjectName(QStringLiteral("opt") + name + QStringLiteral("No"));
    auto* pairLayout = new QHBoxLayout(pair);
    pairLayout->setContentsMargins(0, 0, 0, 0);
    pairLayout->addWidget(yes);
    pairLayout->addWidget(no);
    booleans_.append(qMakePair(yes, no));
    addSetting(
        page, name, caption, pair, {yes, no}, flag,
        [yes, no, value](const CConfiguration& c) {
            yes->setChecked(c.*value);
            no->setChecked(!(c.*value));
        },
        [yes, value](CConfiguration& c) { c.*value = yes->isChecked(); },
        [this, value](const CConfiguration& c) { return texts_.sharedWord(c.*value ? 3 : 4); });
}

void ConfigurationDialog::addText(QWidget* page, const QString& name, const QString& caption,
                                  QString CConfiguration::*value, bool CConfiguration::*flag)
{
    auto* edit = new QLineEdit(page);
    edit->setObjectName(name);
    edit->setMinimumWidth(220);
    addSetting(
        page, name, caption, edit, {edit}, flag, [edit, value](const CConfiguration& c) { edit->setText(c.*value); },
        [edit, value](CConfiguration& c) { c.*value = edit->text(); },
        [value](const CConfiguration& c) { return c.*value; });
}

void ConfigurationDialog::addNumber(QWidget* page, const QString& name, const QString& caption, int minimum,
                                    int maximum, std::function<int(const CConfiguration&)> get,
                                    std::function<void(CConfiguration&, int)> set, bool CConfiguration::*flag)
{
    auto* spin = new QSpinBox(page);
    spin->setObjectName(name);
    spin->setRange(minimum, maximum);
    spin->setMinimumWidth(100);
    addSetting(
        page, name, caption, spin, {spin}, flag, [spin, get](const CConfiguration& c) { spin->setValue(get(c)); },
        [spin, set](CConfiguration& c) { set(c, spin->value()); },
        [get](const CConfiguration& c) { return QString::number(get(c)); });
}

void ConfigurationDialog::addLanguage(QWidget* page)
{
    language_ = new QComboBox(page);
    language_->setObjectName(QStringLiteral("Language"));
    language_->setMinimumWidth(160);
    fillLanguages();
    addSetting(
        page, QStringLiteral("Language"), QStringLiteral("Langue de l'interface:"), language_, {language_},
        &CConfiguration::LanguageDefined,
        [this](const CConfiguration& c) {
            int index = language_->findText(c.Language);
            if (index < 0) {
                language_->addItem(c.Language);
                index = language_->count() - 1;
            }
            language_->setCurrentIndex(index);
        },
        [this](CConfiguration& c) { c.Language = language_->currentText(); },
        [](const CConfiguration& c) { return c.Language; });
}

// The languages offered are the files of the language folders (the program folder's, then those
// installed with the program), each once, with its flag when an icon of the same name lies beside it.
void ConfigurationDialog::fillLanguages()
{
    QStringList offered;
    for (const QString& path : LanguageFolders(logs_.folder())) {
        const QDir folder(path);
        for (const QFileInfo& file : folder.entryInfoList({QStringLiteral("*.ini")}, QDir::Files, QDir::Name)) {
            if (offered.contains(file.completeBaseName()))
                continue;
            offered << file.completeBaseName();
            const QString flag = folder.filePath(file.completeBaseName() + QStringLiteral(".ico"));
            language_->addItem(QFileInfo::exists(flag) ? QIcon(flag) : QIcon(), file.completeBaseName());
        }
    }
}

void ConfigurationDialog::applySharedWords()
{
    for (const Binding& binding : bindings_)
        binding.defaultBox->setText(texts_.sharedWord(1));
    for (const auto& [yes, no] : booleans_) {
        yes->setText(texts_.sharedWord(3));
        no->setText(texts_.sharedWord(4));
    }
}

void ConfigurationDialog::fillFromSettings()
{
    const CConfiguration& user = settings_.UserSettings;
    const CConfiguration& defaults = settings_.DefaultSettings;
    for (const Binding& binding : bindings_) {
        const bool defined = user.*(binding.flag);
        binding.show(defined ? user : defaults);
        binding.defaultBox->setChecked(defined);
        for (QWidget* control : binding.controls)
            control->setEnabled(defined);
        binding.defaultValue->setText(texts_.sharedWord(2) + QStringLiteral(": ") + binding.defaultText(defaults));
    }
    // The login has a field of its own.
    const auto [server, login] = splitLogin(server_->text());
    server_->setText(server);
    user_->setText(login);
    user_->setEnabled(server_->isEnabled());
}

void ConfigurationDialog::btnWrite_Click()
{
    logs_.guarded("FRM:CONFIGURATION[btnWrite_Click]", [this] {
        CConfiguration& edit = settings_.EditSettings;
        for (const Binding& binding : bindings_) {
            binding.take(edit);
            edit.*(binding.flag) = binding.defaultBox->isChecked();
        }
        edit.SmtpServer = joinLogin(edit.SmtpServer.trimmed(), user_->text().trimmed());
        WriteConf(edit, logs_);
    });
    storePassword();
    routes_->write();
    if (applyWritten_)
        applyWritten_();
}

// A text field with its label above it, as the settings have, but no check box of its own.
QLineEdit* ConfigurationDialog::addField(QWidget* page, const QString& name, const QString& caption)
{
    auto* column = static_cast<QVBoxLayout*>(page->layout());
    auto* label = new QLabel(caption, page);
    label->setObjectName(QStringLiteral("lbl") + name);
    column->addWidget(label);
    auto* field = new QLineEdit(page);
    field->setObjectName(QStringLiteral("txt") + name);
    field->setMinimumWidth(220);
    auto* line = new QHBoxLayout;
    line->addSpacing(12);
    line->addWidget(field);
    line->addStretch(1);
    column->addLayout(line);
    return field;
}

// The login of a provider's server goes with SmtpServer and its check box.
void ConfigurationDialog::addServerUser(QWidget* page)
{
    user_ = addField(page, QStringLiteral("SmtpUser"), QStringLiteral("Utilisateur (identifiant chez le fournisseur):"));
    connect(page->findChild<QCheckBox*>(QStringLiteral("SmtpServerDefault")), &QCheckBox::toggled, user_,
            &QWidget::setEnabled);
}

// The provider's password is no setting: it never goes into Postiq.ini (which users share and
// this dialog rewrites) but into the desktop keyring, or, where none answers, into its own file,
// readable by its owner only. The field is never filled from either; an empty field leaves the
// stored password as it is.
void ConfigurationDialog::addPassword(QWidget* page)
{
    password_ = addField(page, QStringLiteral("SmtpPassword"), QStringLiteral("Mot de passe du serveur SMTP:"));
    password_->setEchoMode(QLineEdit::Password);
    auto* column = static_cast<QVBoxLayout*>(page->layout());
    passwordInKeyring_ = new QLabel(QStringLiteral("Le mot de passe est gardé dans le trousseau du bureau."), page);
    passwordInKeyring_->setObjectName(QStringLiteral("lblPasswordInKeyring"));
    passwordInFile_ = new QLabel(
        QStringLiteral("Pas de trousseau: le mot de passe est gardé dans le fichier smtp-password (mode 0600)."), page);
    passwordInFile_->setObjectName(QStringLiteral("lblPasswordInFile"));
    for (QLabel* place : {passwordInKeyring_, passwordInFile_}) {
        place->setWordWrap(true);
        place->setEnabled(false);
        column->addWidget(place);
    }
    showPasswordPlace(settings_.keyring != nullptr);
}

void ConfigurationDialog::showPasswordPlace(bool inKeyring)
{
    passwordInKeyring_->setVisible(inKeyring);
    passwordInFile_->setVisible(!inKeyring);
}

void ConfigurationDialog::storePassword()
{
    const QByteArray password = password_->text().toUtf8();
    password_->clear();
    if (password.isEmpty())
        return;
    StorePassword(settings_, logs_, SmtpPasswordKey(logs_.folder()), QString::fromLatin1(kSmtpPasswordFile), password,
                  this, [this](bool inKeyring) { showPasswordPlace(inKeyring); });
}

void ConfigurationDialog::selectCategory(const QString& nodeKey)
{
    for (int i = 0; i < categories_->topLevelItemCount(); ++i) {
        if (categories_->topLevelItem(i)->data(0, kNodeKeyRole).toString() == nodeKey)
            nodeClicked(categories_->topLevelItem(i));
    }
}

void ConfigurationDialog::nodeClicked(QTreeWidgetItem* item)
{
    if (!item)
        return;
    title_->setText(item->text(0));
    pages_->setCurrentIndex(categories_->indexOfTopLevelItem(item));
    const QString icon = item->data(0, kNodeIconRole).toString();
    image_->setPixmap(icon.isEmpty() ? QPixmap() : QIcon(iconPath(icon)).pixmap(kIconSize, kIconSize));
    for (int i = 0; i < categories_->topLevelItemCount(); ++i) {
        QTreeWidgetItem* node = categories_->topLevelItem(i);
        QFont font = node->font(0);
        font.setBold(node == item);
        node->setFont(0, font);
    }
    categories_->setCurrentItem(item);
}

} // namespace postiq
