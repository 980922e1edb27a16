#include <QAbstractButton>
#include <QAction>
#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLibraryInfo>
#include <QMenu>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QTableWidget>
#include <QTreeWidget>
#include <gtest/gtest.h>

#include "core/connection_state_text.h"
#include "ui/desktop_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// French as the windows write it: its accented letters and its short words.
const QRegularExpression kFrench(
    QStringLiteral("[éèêëàâçùûôîÉÈÊÀÇ]|\\b(Oui|Non|le|la|les|du|des|de|et|pour|au|sur|un|une|Etat|Fichier|Aide|Voir|"
                   "Ouvrir|Quitter|Fermer|Ecrire|Recharger|Forcer|Serveur|Langue|Relai|Attente|Utilisateur|"
                   "Mot|passe|trousseau|fichier|Accepter|Lancer|Nombre|Etre|Connexion|Mettre|actuelle)\\b"));

// Every text a window shows: captions, titles, tool-tips, menu entries, tree, grid and list items.
QStringList textsOf(QWidget& window)
{
    QStringList texts{window.windowTitle(), window.toolTip()};
    for (QWidget* widget : window.findChildren<QWidget*>()) {
        texts << widget->toolTip() << widget->windowTitle();
        if (auto* label = qobject_cast<QLabel*>(widget))
            texts << label->text();
        if (auto* button = qobject_cast<QAbstractButton*>(widget))
            texts << button->text();
        if (auto* box = qobject_cast<QGroupBox*>(widget))
            texts << box->title();
        if (auto* menu = qobject_cast<QMenu*>(widget))
            texts << menu->title();
        if (auto* tree = qobject_cast<QTreeWidget*>(widget))
            for (int i = 0; i < tree->topLevelItemCount(); ++i)
                texts << tree->topLevelItem(i)->text(0);
        if (auto* table = qobject_cast<QTableWidget*>(widget))
            for (int column = 0; column < table->columnCount(); ++column)
                texts << table->horizontalHeaderItem(column)->text();
        if (auto* combo = qobject_cast<QComboBox*>(widget))
            for (int i = 0; i < combo->count(); ++i)
                texts << combo->itemText(i);
    }
    for (QAction* action : window.findChildren<QAction*>())
        texts << action->text() << action->toolTip();
    texts.removeAll(QString());
    return texts;
}

QStringList frenchIn(const QStringList& texts)
{
    QStringList french;
    for (const QString& text : texts)
        if (kFrench.match(text).hasMatch())
            french << text;
    return french;
}

struct EnglishDesktop : ::testing::TestWithParam<bool> {
    DesktopBench bench{"Language\ten\r\n", GetParam()};

    void SetUp() override
    {
        bench.writeLanguage("en", readFile(QStringLiteral(POSTIQ_SOURCE_DIR "/language/en.ini")));
        bench.start();
    }
};

} // namespace

// With Language en no French is left in any window, page, menu, tool-tip, grid or notice, with
// the notification area and without it (the main window then carries the menu).
TEST_P(EnglishDesktop, NoFrenchWordIsLeftAnywhere)
{
    DesktopShell& shell = *bench.shell;
    QStringList texts = textsOf(shell.mainWindow());
    texts << textsOf(*shell.menu().menu);
    texts << shell.trayIcon().toolTip() << shell.eventIcon().toolTip();

    // A Routes.ini with a fault, so that the routes page shows its errors' heading.
    writeFile(bench.path("Routes.ini"), "[work]\nServer = smtp://smtp.work.example\n[broken]\nSenders = *@x\n");
    shell.openConfiguration();
    ConfigurationDialog& dialog = *shell.configurationDialog();
    for (const char* node : {"cat_onstart_0", "cat_computer_1", "cat_parameters_2", "cat_network_5", "cat_server_7",
                             "cat_routes_8", "cat_relay_6", "cat_debug_3", "cat_language_4"}) {
        dialog.selectCategory(node); // the title over the page follows the node
        texts << textsOf(dialog);
    }
    // The routes page's form, a refusal, a route kept and one removed: each says something.
    const auto click = [&dialog](const char* name) {
        dialog.findChild<QPushButton*>(QLatin1String(name))->click();
    };
    const auto field = [&dialog](const char* name) { return dialog.findChild<QLineEdit*>(QLatin1String(name)); };
    click("btnRouteAdd");
    field("txtRouteName")->setText(QStringLiteral("bad name"));
    click("btnRouteOk");
    texts << textsOf(dialog);
    field("txtRouteName")->setText(QStringLiteral("home"));
    field("txtRouteServer")->setText(QStringLiteral("smtps://smtp.home.example"));
    dialog.findChild<QComboBox*>(QStringLiteral("cboRouteFallback"))->setCurrentIndex(1);
    click("btnRouteOk");
    texts << textsOf(dialog);
    click("btnRouteRemove");
    texts << textsOf(dialog);
    ASSERT_TRUE(dialog.findChild<QLabel*>(QStringLiteral("lblRouteStatus"))->text().startsWith("Route home removed"));

    shell.announceNewVersion(QStringLiteral("9.9"));
    texts << textsOf(*shell.announcement());
    shell.menu().mnusystrayevent->trigger();

    // What the grid says of every state of a slot.
    for (int32_t status = 0; status < 40; ++status)
        texts << connectionStateText("IN", status, bench.application->language())
              << connectionStateText("OUT", status, bench.application->language());

    // A new listening port is told in a notice.
    dialog.findChild<QAbstractButton*>(QStringLiteral("ListenPortDefault"))->setChecked(true);
    dialog.findChild<QSpinBox*>(QStringLiteral("ListenPort"))->setValue(bench.port == 2999 ? 2998 : 2999);
    dialog.findChild<QPushButton*>(QStringLiteral("btnWrite"))->click();
    ASSERT_EQ(bench.desktop.notices.size(), 2);
    for (const RecordingDesktop::Box& notice : bench.desktop.notices)
        texts << notice.title << notice.text;

    EXPECT_GT(texts.size(), 100);
    EXPECT_EQ(frenchIn(texts), QStringList());
    EXPECT_TRUE(texts.contains(QStringLiteral("Quit")));
    EXPECT_TRUE(texts.contains(QStringLiteral("Outgoing server")));
    EXPECT_TRUE(texts.contains(QStringLiteral("Fallback route:")));
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutTray, EnglishDesktop, ::testing::Bool());

// The detector itself finds what it must: the built-in French windows are full of it.
TEST(EnglishDesktopCheck, TheBuiltInWindowsAreFrench)
{
    DesktopBench bench;
    bench.start();
    EXPECT_GT(frenchIn(textsOf(*bench.shell->menu().menu)).size(), 8);
}

// Qt's own words follow the chosen language: Oui and Non in French, Yes and No in English.
TEST(QtWords, FollowTheChosenLanguage)
{
    const QString translations = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
    if (!QFile::exists(translations + QStringLiteral("/qtbase_fr.qm")))
        GTEST_SKIP() << "Qt's translations (qt6-translations-l10n) are not installed";
    {
        DesktopBench bench;
        bench.start();
        EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "&Yes"), QString("&Oui"));
        EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "&No"), QString("&Non"));
    }
    DesktopBench bench("Language\ten\r\n");
    bench.writeLanguage("en", "<MAIN>\r\n</MAIN>\r\n");
    bench.start();
    EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "&Yes"), QString("&Yes"));
}
