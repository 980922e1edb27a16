#include <QAbstractButton>
#include <QAction>
#include <QFile>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <gtest/gtest.h>

#include "ui/desktop_bench.h"
#include "ui/relabel.h"

using namespace postiq;
using namespace postiq::test;

namespace {

QString captionOf(QObject* control)
{
    if (auto* action = qobject_cast<QAction*>(control))
        return action->text();
    if (auto* button = qobject_cast<QAbstractButton*>(control))
        return button->text();
    if (auto* label = qobject_cast<QLabel*>(control))
        return label->text();
    if (auto* box = qobject_cast<QGroupBox*>(control))
        return box->title();
    return qobject_cast<QWidget*>(control)->windowTitle();
}

QString toolTipOf(QObject* control)
{
    if (auto* action = qobject_cast<QAction*>(control))
        return action->toolTip();
    return qobject_cast<QWidget*>(control)->toolTip();
}

QObject* named(QWidget& form, const QString& name)
{
    return form.objectName() == name ? &form : form.findChild<QObject*>(name);
}

} // namespace

TEST(Relabel, AnEntryRelabelsOnlyTheFormOfItsSection)
{
    DesktopBench bench("Language\txx\r\n");
    bench.writeLanguage("xx", "CPT_mnuquit=before any section\r\n"
                              "<CONFIGURATION>\r\nCPT_btnWrite=Write it\r\nNOD_network_5=Net\r\n"
                              "TIP_btnClose=Leaves without writing\r\n</CONFIGURATION>\r\n"
                              "<MAIN>\r\nCPT_mnuopen=Show\r\n</MAIN>\r\n"
                              "<CONSTANTS>\r\nCST_03=Ja\r\n</CONSTANTS>\r\n");
    bench.start();
    EXPECT_EQ(bench.shell->menu().mnuopen->text(), QString("Show"));
    EXPECT_EQ(bench.shell->menu().mnuquit->text(), QString("Quitter"));

    bench.shell->openConfiguration();
    ConfigurationDialog& dialog = *bench.shell->configurationDialog();
    EXPECT_EQ(dialog.findChild<QPushButton*>("btnWrite")->text(), QString("Write it"));
    EXPECT_EQ(dialog.findChild<QPushButton*>("btnClose")->toolTip(), QString("Leaves without writing"));
    EXPECT_EQ(dialog.findChild<QTreeWidget*>("Categories")->topLevelItem(3)->text(0), QString("Net"));
    EXPECT_EQ(dialog.findChild<QAbstractButton*>("optRelayYes")->text(), QString("Ja"));
    EXPECT_EQ(dialog.findChild<QAbstractButton*>("optRelayNo")->text(), QString("Non"));
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST(Relabel, AKeyThatNamesNoControlIsTheFatalReport)
{
    DesktopBench bench("Language\txx\r\n");
    bench.writeLanguage("xx", "<MAIN>\r\nCPT_btnWrite=Write it\r\n</MAIN>\r\n");
    try {
        bench.start();
        FAIL() << "the program went on";
    } catch (const ProgramEnded& ended) {
        EXPECT_EQ(ended.status, 1);
    }
    ASSERT_EQ(bench.desktop.boxes.size(), 1);
    EXPECT_EQ(bench.desktop.boxes[0].title, QString("Erreur fatale"));
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(bench.desktop.diagnostics[0].contains("MOD:LANGUAGE[LOADValues]"));
    EXPECT_TRUE(bench.desktop.diagnostics[0].contains("btnWrite"));
    bench.application.reset(); // ended: nothing to quit
    bench.shell.reset();
}

TEST(Relabel, EnglishFileRelabelsEveryControlItNames)
{
    QFile english(QStringLiteral(POSTIQ_SOURCE_DIR "/language/en.ini"));
    ASSERT_TRUE(english.open(QIODevice::ReadOnly));
    DesktopBench bench("Language\ten\r\n");
    bench.writeLanguage("en", english.readAll());
    bench.start();
    bench.shell->openConfiguration();
    ConfigurationDialog& dialog = *bench.shell->configurationDialog();
    bench.shell->showQueueWindow();
    QueueWindow& queueWindow = *bench.shell->queueWindow();
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());

    const auto& rows = bench.application->language().rows();
    int checked = 0;
    for (const LanguageTable::Row& row : rows) {
        QWidget& form = row.section == "MAIN"  ? static_cast<QWidget&>(bench.shell->mainWindow())
                      : row.section == "QUEUE" ? static_cast<QWidget&>(queueWindow)
                                               : static_cast<QWidget&>(dialog);
        const QString name = row.key.mid(4);
        if (row.key.startsWith("CPT_")) {
            ASSERT_NE(named(form, name), nullptr) << row.key.toStdString();
            EXPECT_EQ(captionOf(named(form, name)), row.value) << row.key.toStdString();
            ++checked;
        } else if (row.key.startsWith("TIP_")) {
            EXPECT_EQ(toolTipOf(named(form, name)), row.value) << row.key.toStdString();
            ++checked;
        }
    }
    EXPECT_GT(checked, 25);
    EXPECT_EQ(bench.shell->menu().mnuquit->text(), QString("Quit"));
    EXPECT_EQ(dialog.findChild<QTreeWidget*>("Categories")->topLevelItem(3)->text(0), QString("Network"));
    EXPECT_EQ(dialog.findChild<QAbstractButton*>("ListenPortDefault")->text(), QString("Override the default value"));
    EXPECT_EQ(dialog.findChild<QAbstractButton*>("optRelayNo")->text(), QString("No"));
    EXPECT_EQ(dialog.findChild<QLabel*>("lblSmtpServerDefaultValue")->text(), QString("Default: smtp.fai.com"));
}

// fr.ini is the model of a new language: it must say what the windows say without it.
TEST(Relabel, TheFrenchFileHoldsTheBuiltInCaptions)
{
    DesktopBench bench; // with no language file: the built-in French
    bench.start();
    bench.shell->openConfiguration();
    ConfigurationDialog& dialog = *bench.shell->configurationDialog();
    bench.writeLanguage("model", readFile(QStringLiteral(POSTIQ_SOURCE_DIR "/language/fr.ini")));
    LanguageTable french;
    french.LOADFile(bench.application->logs(), QStringLiteral("model"));
    int checked = 0;
    for (const LanguageTable::Row& row : french.rows()) {
        if (!row.key.startsWith("CPT_") || (row.section != "MAIN" && row.section != "CONFIGURATION"))
            continue;
        QWidget& form = row.section == "MAIN" ? static_cast<QWidget&>(bench.shell->mainWindow())
                                              : static_cast<QWidget&>(dialog);
        QObject* control = named(form, row.key.mid(4));
        ASSERT_NE(control, nullptr) << row.key.toStdString();
        EXPECT_EQ(captionOf(control), row.value) << row.key.toStdString();
        ++checked;
    }
    EXPECT_GT(checked, 40);
}
