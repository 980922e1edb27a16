#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QStackedWidget>
#include <QTreeWidget>
#include <gtest/gtest.h>

#include "support/mail_client.h"
#include "support/memory_keyring.h"
#include "ui/desktop_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

template <typename T>
T& control(QWidget& form, const char* name)
{
    T* found = form.findChild<T*>(QLatin1String(name));
    if (!found)
        throw std::runtime_error(std::string("no control ") + name);
    return *found;
}

struct DialogFixture : ::testing::Test {
    DesktopBench bench{"SmtpServer\tmail.example.org\r\nRelay\tOff\r\n"};
    ConfigurationDialog* dialog = nullptr;

    void SetUp() override
    {
        bench.writeLanguage("de", "<CONSTANTS>\r\n</CONSTANTS>\r\n");
        bench.start();
        bench.shell->menu().mnuconfig->trigger();
        dialog = bench.shell->configurationDialog();
        ASSERT_NE(dialog, nullptr);
    }
    QCheckBox& box(const char* name) { return control<QCheckBox>(*dialog, name); }
    QByteArray iniFile() { return readFile(bench.path("Postiq.ini")); }
};

} // namespace

TEST_F(DialogFixture, TreeHasItsCategoriesAndANodeClickShowsItsPage)
{
    EXPECT_TRUE(dialog->isVisible());
    EXPECT_FALSE(dialog->isModal());
    auto& tree = control<QTreeWidget>(*dialog, "Categories");
    auto& pages = control<QStackedWidget>(*dialog, "SSTabCat");
    const QStringList keys{"cat_onstart_0", "cat_computer_1", "cat_parameters_2", "cat_network_5",
                           "cat_server_7", "cat_routes_8", "cat_relay_6", "cat_debug_3", "cat_language_4"};
    const QStringList captions{"Démarrage Postiq", "Démarrage ordinateur", "Paramètres", "Réseau",
                               "Serveur sortant", "Routes", "Relai", "Débuggage", "Langue"};
    const QStringList frames{"frmOnStart", "frmComputer", "frmParametres", "frmNetwork", "frmServer",
                             "frmRoutes", "frmRelay", "frmDebug", "frmLanguage"};
    ASSERT_EQ(tree.topLevelItemCount(), 9);
    ASSERT_EQ(pages.count(), 9);
    for (int i = 0; i < 9; ++i) {
        QTreeWidgetItem* node = tree.topLevelItem(i);
        EXPECT_EQ(node->data(0, Qt::UserRole).toString(), keys[i]);
        EXPECT_EQ(node->text(0), captions[i]);
        EXPECT_EQ(node->icon(0).isNull(), keys[i] == "cat_relay_6") << i;
        EXPECT_EQ(pages.widget(i)->objectName(), frames[i]);
    }

    dialog->selectCategory("cat_network_5");
    EXPECT_EQ(pages.currentWidget()->objectName(), QString("frmNetwork"));
    EXPECT_EQ(control<QLabel>(*dialog, "strCategorie").text(), QString("Réseau"));
    EXPECT_FALSE(control<QLabel>(*dialog, "imgCat").pixmap().isNull());
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(tree.topLevelItem(i)->font(0).bold(), i == 3) << i;
    // The network page holds the two network settings with their check boxes; the outgoing
    // server has a page of its own, with its login and password.
    for (const char* name : {"DNSServer", "ListenPort", "DNSServerDefault", "ListenPortDefault"})
        EXPECT_NE(pages.currentWidget()->findChild<QWidget*>(name), nullptr) << name;
    dialog->selectCategory("cat_server_7");
    for (const char* name : {"SmtpServer", "SmtpServerDefault", "txtSmtpUser", "txtSmtpPassword"})
        EXPECT_NE(pages.currentWidget()->findChild<QWidget*>(name), nullptr) << name;

    dialog->selectCategory("cat_relay_6");
    EXPECT_TRUE(control<QLabel>(*dialog, "imgCat").pixmap().isNull());
    EXPECT_EQ(control<QLabel>(*dialog, "lblRelay").text(),
              QString("Etre serveur de relai pour le réseau 192.168.x.x:"));
}

TEST_F(DialogFixture, OpeningFillsFromTheFileWhereFlaggedElseFromTheDefaultsDisabled)
{
    EXPECT_TRUE(box("SmtpServerDefault").isChecked());
    EXPECT_TRUE(control<QLineEdit>(*dialog, "SmtpServer").isEnabled());
    EXPECT_EQ(control<QLineEdit>(*dialog, "SmtpServer").text(), QString("mail.example.org"));
    EXPECT_TRUE(box("ListenPortDefault").isChecked());
    EXPECT_EQ(control<QSpinBox>(*dialog, "ListenPort").value(), bench.port);
    EXPECT_TRUE(control<QRadioButton>(*dialog, "optRelayNo").isChecked());
    EXPECT_TRUE(control<QRadioButton>(*dialog, "optRelayNo").isEnabled());

    EXPECT_FALSE(box("MaxNbrAttemptDefault").isChecked());
    EXPECT_FALSE(control<QSpinBox>(*dialog, "MaxNbrAttempt").isEnabled());
    EXPECT_EQ(control<QSpinBox>(*dialog, "MaxNbrAttempt").value(), 3);
    EXPECT_FALSE(box("LaunchStartDefault").isChecked());
    EXPECT_TRUE(control<QRadioButton>(*dialog, "optLaunchStartYes").isChecked());
    EXPECT_FALSE(control<QRadioButton>(*dialog, "optLaunchStartYes").isEnabled());
    EXPECT_FALSE(control<QRadioButton>(*dialog, "optLaunchStartNo").isEnabled());
    EXPECT_EQ(box("LaunchStartDefault").text(), QString("Outrepasser la valeur par défaut"));
    EXPECT_EQ(control<QRadioButton>(*dialog, "optLaunchStartYes").text(), QString("Oui"));
    EXPECT_EQ(control<QRadioButton>(*dialog, "optLaunchStartNo").text(), QString("Non"));
    EXPECT_EQ(control<QLabel>(*dialog, "lblSmtpServerDefaultValue").text(), QString("Défaut: smtp.fai.com"));

    // The languages offered are the files of the language folder.
    auto& languages = control<QComboBox>(*dialog, "Language");
    EXPECT_NE(languages.findText("de"), -1);
    EXPECT_EQ(languages.currentText(), QString("fr"));

    // A check box switches its controls on and off.
    box("LaunchStartDefault").click();
    EXPECT_TRUE(control<QRadioButton>(*dialog, "optLaunchStartYes").isEnabled());
    EXPECT_TRUE(control<QRadioButton>(*dialog, "optLaunchStartNo").isEnabled());
    box("LaunchStartDefault").click();
    EXPECT_FALSE(control<QRadioButton>(*dialog, "optLaunchStartNo").isEnabled());
    box("SmtpServerDefault").click();
    EXPECT_FALSE(control<QLineEdit>(*dialog, "SmtpServer").isEnabled());
}

TEST_F(DialogFixture, WritingWithEveryBoxClearedGivesTheHeaderOnlyFile)
{
    for (QCheckBox* each : dialog->findChildren<QCheckBox*>())
        each->setChecked(false);
    control<QPushButton>(*dialog, "btnWrite").click();
    EXPECT_EQ(iniFile(), kHeaderOnlyIni);
    EXPECT_TRUE(readFile(bench.path("maillog.txt")).contains(" Postiq: Writing Postiq.ini"));
}

// Writing puts the file into force at once, as Recharger does; a new listening port is opened at
// the service's next start, and a notice says so.
TEST_F(DialogFixture, WritingWithEveryBoxSetWritesEverySettingAndAppliesIt)
{
    for (QCheckBox* each : dialog->findChildren<QCheckBox*>())
        each->setChecked(true);
    control<QRadioButton>(*dialog, "optDebugModeYes").setChecked(true);
    control<QSpinBox>(*dialog, "ListenPort").setValue(2626);
    control<QComboBox>(*dialog, "Language").setCurrentText("de");
    control<QSpinBox>(*dialog, "MaxNbrAttempt").setValue(5);
    control<QSpinBox>(*dialog, "AttemptDelay").setValue(30);
    control<QRadioButton>(*dialog, "optLaunchStartNo").setChecked(true);
    control<QRadioButton>(*dialog, "optKeepLocalYes").setChecked(true);
    control<QLineEdit>(*dialog, "DNSServer").setText("10.0.0.1");
    control<QLineEdit>(*dialog, "SmtpServer").setText("relay.example.net");
    control<QRadioButton>(*dialog, "optRelayYes").setChecked(true);
    control<QRadioButton>(*dialog, "optComputerStartNo").setChecked(true);
    control<QPushButton>(*dialog, "btnWrite").click();

    EXPECT_EQ(iniFile(), QByteArray("# Fichier de configuration de Postiq\r\n"
                                    "# Placer un dièse '#' devant une ligne pour qu'elle devienne un commentaire\r\n"
                                    "\r\n"
                                    "# Version de Postiq pour ce fichier de configuration (dernière écriture logicielle)\r\n"
                                    "# Postiq Version 3.0\r\n"
                                    "\r\n"
                                    "Debug\tOn\r\n\r\n"
                                    "ListenPort\t2626\r\n\r\n"
                                    "Language\tde\r\n\r\n"
                                    "# Nombre maximal de tentatives d'envoi en cas d'échec\r\nMaxNbrAttempt\t5\r\n\r\n"
                                    "# Nombre de minutes avant la prochaine tentative d'envoi après un échec\r\n"
                                    "AttemptDelay\t30\r\n\r\n"
                                    "<Global>\r\n"
                                    "\t# Démarrer Postiq à son lancement\r\n\tLaunchStart\tOff\r\n\r\n"
                                    "\t# Forcer Postiq à accepter les mails mais les laisser\r\n"
                                    "\t# dans le répertoire local d'envoi 'OutBox'\r\n\tKeepLocal\tOn\r\n\r\n"
                                    "\t# Serveur DNS (généralement celui de votre FAI)\r\n\t#DNSServer\t127.0.0.1\r\n"
                                    "\tDNSServer\t10.0.0.1\r\n\r\n"
                                    "\t# Serveur SMTP (pour tous message sortant)\r\n\tSmtpServer\trelay.example.net\r\n\r\n"
                                    "\t# Etre relai pour le réseau 192.168.x.x\r\n\tRelay\tOn\r\n\r\n"
                                    "</Global>\r\n"
                                    "\r\n"
                                    "<Registry>\r\n"
                                    "\tComputerStart\tOff\r\n"
                                    "</Registry>\r\n"));

    Settings& settings = bench.application->settings();
    EXPECT_EQ(settings.UserSettings.SmtpServer, QString("relay.example.net"));
    EXPECT_TRUE(settings.UserSettings.SmtpServerDefined);
    EXPECT_EQ(settings.ActiveSettings.SmtpServer, QString("relay.example.net"));
    EXPECT_EQ(settings.ActiveSettings.ListenPort, 2626);
    EXPECT_EQ(settings.ActiveSettings.Language, QString("de"));
    EXPECT_TRUE(bench.application->serviceStarted()); // still on its old port, until it starts again
    ASSERT_EQ(bench.desktop.notices.size(), 1);
    EXPECT_TRUE(bench.desktop.notices[0].text.contains(QString("de %1 à 2626").arg(bench.port)))
        << bench.desktop.notices[0].text.toStdString();

    // Written again with the same port: nothing more to say.
    control<QPushButton>(*dialog, "btnWrite").click();
    EXPECT_EQ(bench.desktop.notices.size(), 1);
}

// The login has its own field: the server is shown without it, and written with it.
TEST_F(DialogFixture, TheLoginGoesIntoTheServersAddress)
{
    box("SmtpServerDefault").setChecked(true);
    control<QLineEdit>(*dialog, "SmtpServer").setText("smtps://smtp.example.net:465");
    control<QLineEdit>(*dialog, "txtSmtpUser").setText("me@example.net");
    control<QPushButton>(*dialog, "btnWrite").click();
    Settings& settings = bench.application->settings();
    EXPECT_EQ(settings.ActiveSettings.SmtpServer, QString("smtps://me@example.net@smtp.example.net:465"));

    dialog->close();
    ASSERT_TRUE(spinUntil([&] { return bench.shell->configurationDialog() == nullptr; }, 2000));
    bench.shell->openConfiguration();
    ConfigurationDialog& again = *bench.shell->configurationDialog();
    EXPECT_EQ(control<QLineEdit>(again, "SmtpServer").text(), QString("smtps://smtp.example.net:465"));
    EXPECT_EQ(control<QLineEdit>(again, "txtSmtpUser").text(), QString("me@example.net"));

    // A plain server logs in nowhere: a login given with it is not written.
    control<QLineEdit>(again, "SmtpServer").setText("relay.example.net:2525");
    control<QPushButton>(again, "btnWrite").click();
    EXPECT_EQ(settings.ActiveSettings.SmtpServer, QString("relay.example.net:2525"));
}

TEST_F(DialogFixture, CloseLeavesTheFileAlone)
{
    const QByteArray before = iniFile();
    control<QLineEdit>(*dialog, "SmtpServer").setText("changed.example");
    control<QPushButton>(*dialog, "btnClose").click();
    EXPECT_TRUE(spinUntil([&] { return bench.shell->configurationDialog() == nullptr; }, 2000));
    EXPECT_EQ(iniFile(), before);
}

// The provider's password goes into its own file, readable by its owner only, never into
// Postiq.ini; the field is never filled from the file, and an empty field leaves it alone.
TEST_F(DialogFixture, ThePasswordFieldWritesItsOwnFileOnly)
{
    QLineEdit& field = control<QLineEdit>(*dialog, "txtSmtpPassword");
    EXPECT_EQ(field.echoMode(), QLineEdit::Password);
    field.setText("s3cret pass");
    control<QPushButton>(*dialog, "btnWrite").click();
    const QString file = bench.path("smtp-password");
    EXPECT_EQ(readFile(file), "s3cret pass\n");
    const auto ownerGroupOther = QFile::permissions(file) & ~QFileDevice::Permissions(0x0700); // not the "user" bits
    EXPECT_EQ(ownerGroupOther, QFile::ReadOwner | QFile::WriteOwner) << "mode 0600";
    EXPECT_FALSE(iniFile().contains("s3cret"));
    EXPECT_TRUE(field.text().isEmpty());

    control<QPushButton>(*dialog, "btnWrite").click();
    EXPECT_EQ(readFile(file), "s3cret pass\n");
}

namespace {

struct KeyringDialog {
    DesktopBench bench;
    MemoryKeyring* keyring = nullptr;
    ConfigurationDialog* dialog = nullptr;

    explicit KeyringDialog(bool answers)
    {
        auto memory = std::make_unique<MemoryKeyring>();
        memory->answers = answers;
        keyring = memory.get();
        bench.keyring = std::move(memory);
        bench.start();
        bench.shell->openConfiguration();
        dialog = bench.shell->configurationDialog();
    }
    void writePassword(const char* password)
    {
        control<QLineEdit>(*dialog, "txtSmtpPassword").setText(password);
        control<QPushButton>(*dialog, "btnWrite").click();
    }
    bool says(const char* line) { return !control<QLabel>(*dialog, line).isHidden(); }
};

} // namespace

// With a keyring the password goes there and nowhere else; the page says where it is kept.
TEST(DialogKeyring, ThePasswordGoesIntoTheKeyringWhereOneAnswers)
{
    KeyringDialog k(true);
    EXPECT_TRUE(k.says("lblPasswordInKeyring"));
    EXPECT_FALSE(k.says("lblPasswordInFile"));
    k.writePassword("s3cret");
    const QString key = "smtp-password " + k.bench.dir.path();
    ASSERT_TRUE(spinUntil([&] { return k.keyring->entries.contains(key); }, 2000));
    EXPECT_EQ(k.keyring->entries.value(key), QByteArray("s3cret"));
    EXPECT_FALSE(QFile::exists(k.bench.path("smtp-password")));
    EXPECT_TRUE(control<QLineEdit>(*k.dialog, "txtSmtpPassword").text().isEmpty());
    EXPECT_TRUE(k.says("lblPasswordInKeyring"));
}

// A keyring that does not answer (locked, refused, gone): the file, and the page says so.
TEST(DialogKeyring, WhereNoKeyringAnswersThePasswordGoesIntoItsFile)
{
    KeyringDialog k(false);
    k.writePassword("s3cret");
    ASSERT_TRUE(spinUntil([&] { return QFile::exists(k.bench.path("smtp-password")); }, 2000));
    EXPECT_EQ(readFile(k.bench.path("smtp-password")), "s3cret\n");
    EXPECT_TRUE(k.says("lblPasswordInFile"));
    EXPECT_FALSE(k.says("lblPasswordInKeyring"));
}
