#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include "language/language.h"
#include "platform/program_folder.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

using Row = LanguageTable::Row;

struct LanguageBench : LogBench {
    LanguageTable table;
    void writeLanguage(const QString& name, const QByteArray& bytes, const QString& folder = "language")
    {
        QDir(dir.path()).mkpath(folder);
        writeFile(path(folder + '/' + name + ".ini"), bytes);
    }
};

TEST(LOADFile, ReadsEntriesOfSectionsInFileOrder)
{
    LanguageBench bench;
    bench.writeLanguage("en",
                        "CPT_before=ignored, no section yet\r\n"
                        "<MAIN>\r\n"
                        "CPT_lblTitle = Title \r\n"
                        "\tTIP_btnStart\t=\t\"Start the service\"\r\n"
                        "CPT_a=b=c\r\n"            // several "=": not an entry
                        "no equals sign\r\n"
                        "\r\n"
                        "CPT_cut=Write, then read\r\n" // the comma ends the item
                        "\"CPT_whole=Write, then read\"\r\n"
                        "</MAIN>\r\n"
                        "CPT_between=ignored\r\n"
                        "<CONFIGURATION>\r\n"
                        "NOD_relay_6=Relay\n"
                        "<CONSTANTS>\n"             // a new head replaces the section
                        "CST_03=Yes\n"
                        "</CONSTANTS>");
    bench.table.LOADFile(bench.logs, "en");
    const QList<Row> expected{
        {"MAIN", "CPT_lblTitle", "Title"},
        {"MAIN", "TIP_btnStart", "Start the service"},
        {"MAIN", "CPT_cut", "Write"},
        {"MAIN", "CPT_whole", "Write, then read"},
        {"CONFIGURATION", "NOD_relay_6", "Relay"},
        {"CONSTANTS", "CST_03", "Yes"},
    };
    EXPECT_EQ(bench.table.rows(), expected);
    EXPECT_EQ(readFile(bench.path("maillog.txt")), QByteArray("Feb 05 2004 09:05:07 Postiq: Chargement du langage\r\n"));
}

TEST(LOADFile, MissingFileLeavesTheBuiltInFrenchSilentlyAndUnreadableIsFatal)
{
    LanguageBench bench;
    bench.writeLanguage("en", "<MAIN>\r\nCPT_x=y\r\n", "Language"); // the folder's case does not matter
    bench.table.LOADFile(bench.logs, "en");
    EXPECT_EQ(bench.table.rows(), QList<Row>({{"MAIN", "CPT_x", "y"}}));
    bench.table.setSharedWord(3, "Yes");

    bench.table.LOADFile(bench.logs, "fr");
    EXPECT_TRUE(bench.table.rows().isEmpty());
    QStringList words;
    for (int number = 1; number <= LanguageTable::kSharedWordCount; ++number)
        words << bench.table.sharedWord(number);
    EXPECT_EQ(words, QStringList({"Outrepasser la valeur par défaut", "Défaut", "Oui", "Non"}));
    EXPECT_THROW(bench.table.sharedWord(0), Fault);
    EXPECT_THROW(bench.table.setSharedWord(5, "x"), Fault);
    EXPECT_EQ(readFile(bench.path("maillog.txt")).count("Chargement du langage"), 1); // only "en"
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());

    QDir(bench.dir.path()).mkpath("language/de.ini"); // a folder where the file should be
    EXPECT_THROW(bench.table.LOADFile(bench.logs, "de"), ProgramEnded);
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(bench.desktop.diagnostics[0].startsWith("Where: MOD:LANGUAGE[LOADFile], number 75: "));
}

} // namespace

namespace {

// A language installed with the program serves every program folder; a file of the same name in
// the program folder's own language folder wins.
TEST(LOADFile, InstalledLanguagesServeWhenTheProgramFolderHasNone)
{
    LanguageBench bench;
    QTemporaryDir data;
    QDir(data.path()).mkpath("postiq/language");
    writeFile(data.path() + "/postiq/language/xx.ini", "<MAIN>\r\nCPT_x=installed\r\n</MAIN>\r\n");
    const QByteArray saved = qgetenv("XDG_DATA_DIRS");
    qputenv("XDG_DATA_DIRS", data.path().toUtf8());

    bench.table.LOADFile(bench.logs, "xx");
    EXPECT_EQ(bench.table.rows(), QList<Row>({{"MAIN", "CPT_x", "installed"}}));
    bench.writeLanguage("xx", "<MAIN>\r\nCPT_x=own\r\n</MAIN>\r\n");
    bench.table.LOADFile(bench.logs, "xx");
    EXPECT_EQ(bench.table.rows(), QList<Row>({{"MAIN", "CPT_x", "own"}}));

    qputenv("XDG_DATA_DIRS", saved);
}

} // namespace

namespace {

// A build run on another folder finds the files that lie beside its executable (build/language),
// after the program folder's own.
TEST(LOADFile, FilesBesideTheExecutableServeAfterTheProgramFoldersOwn)
{
    LanguageBench bench;
    const QString name = QStringLiteral("beside%1").arg(QCoreApplication::applicationPid());
    const QString beside = executableFolder() + "/language";
    const bool madeFolder = !QFileInfo::exists(beside);
    QDir().mkpath(beside);
    writeFile(beside + '/' + name + ".ini", "<MAIN>\r\nCPT_x=beside\r\n</MAIN>\r\n");

    bench.table.LOADFile(bench.logs, name);
    EXPECT_EQ(bench.table.rows(), QList<Row>({{"MAIN", "CPT_x", "beside"}}));
    bench.writeLanguage(name, "<MAIN>\r\nCPT_x=own\r\n</MAIN>\r\n");
    bench.table.LOADFile(bench.logs, name);
    EXPECT_EQ(bench.table.rows(), QList<Row>({{"MAIN", "CPT_x", "own"}}));

    QFile::remove(beside + '/' + name + ".ini");
    if (madeFolder)
        QDir().rmdir(beside);
}

// A chosen language without a file says so, in error.txt and on the desktop; the built-in French
// needs no file and says nothing.
TEST(LOADFile, AChosenLanguageWithoutAFileIsReported)
{
    LanguageBench bench;
    bench.table.LOADFile(bench.logs, "fr");
    EXPECT_FALSE(QFile::exists(bench.path("error.txt")));
    EXPECT_TRUE(bench.desktop.notices.isEmpty());

    bench.table.LOADFile(bench.logs, "zz");
    const QByteArray line = readFile(bench.path("error.txt"));
    EXPECT_TRUE(line.startsWith("Feb 05 2004 09:05:07 Postiq: no language file zz.ini (looked in "
                                + QFile::encodeName(bench.path("language")) + ", "))
        << line.constData();
    EXPECT_TRUE(line.endsWith("): the windows stay in French\r\n")) << line.constData();
    ASSERT_EQ(bench.desktop.notices.size(), 1);
    EXPECT_TRUE(bench.desktop.notices[0].text.startsWith("Postiq: no language file zz.ini"));
    EXPECT_TRUE(bench.table.rows().isEmpty());
}

// A text the program composes comes from the section TEXTS, else it is the built-in French.
TEST(LanguageText, FromTheTextsSectionElseFrench)
{
    LanguageBench bench;
    bench.writeLanguage("en", "<MAIN>\r\nTXT_started=not here\r\n</MAIN>\r\n<TEXTS>\r\nTXT_started=Started\r\n</TEXTS>\r\n");
    bench.table.LOADFile(bench.logs, "en");
    EXPECT_EQ(bench.table.text("started", "Démarré"), QString("Started"));
    EXPECT_EQ(bench.table.text("stopped", "Arrêté"), QString("Arrêté"));
}

} // namespace
