#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTableWidget>
#include <gtest/gtest.h>

#include "config/smtp_password.h"
#include "delivery/route_table.h"
#include "support/mail_client.h"
#include "support/memory_keyring.h"
#include "ui/desktop_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// The dialog opened on its routes page, over a program folder that may hold a Routes.ini.
struct RoutesDialog {
    DesktopBench bench;
    MemoryKeyring* keyring = nullptr;
    ConfigurationDialog* dialog = nullptr;

    explicit RoutesDialog(const QByteArray& routesIni = {}, bool withKeyring = false)
    {
        if (!routesIni.isNull())
            writeFile(bench.path("Routes.ini"), routesIni);
        if (withKeyring) {
            auto memory = std::make_unique<MemoryKeyring>();
            keyring = memory.get();
            bench.keyring = std::move(memory);
        }
        bench.start();
        bench.shell->openConfiguration();
        dialog = bench.shell->configurationDialog();
        dialog->selectCategory("cat_routes_8");
    }

    template <typename T>
    T& control(const char* name)
    {
        T* found = dialog->findChild<T*>(QLatin1String(name));
        if (!found)
            throw std::runtime_error(std::string("no control ") + name);
        return *found;
    }
    QTableWidget& table() { return control<QTableWidget>("lstRoutes"); }
    QString status() { return control<QLabel>("lblRouteStatus").text(); }
    QString problem() { return control<QLabel>("lblRouteProblem").text(); }
    bool formOpen() { return !control<QWidget>("fraRouteForm").isHidden(); }
    void click(const char* name) { control<QPushButton>(name).click(); }

    QStringList names()
    {
        QStringList shown;
        for (int row = 0; row < table().rowCount(); ++row)
            shown << table().item(row, 0)->text();
        return shown;
    }
    // The table's rows as Routes.ini would say them: name, senders, server, fallback.
    QList<QStringList> rows()
    {
        QList<QStringList> shown;
        for (int row = 0; row < table().rowCount(); ++row) {
            QStringList cells;
            for (int column = 0; column < table().columnCount(); ++column)
                cells << table().item(row, column)->text();
            shown << cells;
        }
        return shown;
    }
    void select(const QString& name) { table().selectRow(int(names().indexOf(name))); }

    // Fills the open form; an empty fallback is none.
    void fill(const QString& name, const QString& senders, const QString& server, const QString& fallback = {},
              const QString& password = {})
    {
        control<QLineEdit>("txtRouteName").setText(name);
        control<QLineEdit>("txtRouteSenders").setText(senders);
        control<QLineEdit>("txtRouteServer").setText(server);
        auto& combo = control<QComboBox>("cboRouteFallback");
        combo.setCurrentIndex(fallback.isEmpty() ? 0 : combo.findText(fallback));
        control<QLineEdit>("txtRoutePassword").setText(password);
    }
    void add(const QString& name, const QString& senders, const QString& server, const QString& fallback = {},
             const QString& password = {})
    {
        click("btnRouteAdd");
        fill(name, senders, server, fallback, password);
        click("btnRouteOk");
    }
    void edit(const QString& name, const QString& newName, const QString& senders, const QString& server,
              const QString& fallback = {}, const QString& password = {})
    {
        select(name);
        click("btnRouteEdit");
        fill(newName, senders, server, fallback, password);
        click("btnRouteOk");
    }
    void write() { click("btnWrite"); }
    RouteTable written() { return RouteTable::parse(readFile(bench.path("Routes.ini"))); }
    QString passwordFile(const QString& route) { return bench.path(RoutePasswordFile(route)); }
};

QList<QStringList> rowsOf(const RouteTable& table)
{
    QList<QStringList> rows;
    for (const SenderRoute& route : table.routes())
        rows << QStringList{route.name, QString::fromUtf8(route.senders.join(", ")), QString::fromUtf8(route.server),
                            route.fallback};
    return rows;
}

bool ownerOnly(const QString& path)
{
    return (QFile::permissions(path) & ~QFileDevice::Permissions(0x0700)) == (QFile::ReadOwner | QFile::WriteOwner);
}

} // namespace

// Routes are added, edited and removed on the page; "Ecrire" writes them, and Routes.ini read back
// holds what the page shows. Passwords go to their own 0600 files and never into Routes.ini; a
// rename carries the password along, a removal forgets it.
TEST(RoutesPage, AddEditRemoveAndTheFileHoldsWhatThePageShows)
{
    RoutesDialog d;
    EXPECT_EQ(d.table().rowCount(), 0);
    EXPECT_TRUE(d.control<QLabel>("lblRouteErrors").isHidden());
    EXPECT_FALSE(d.control<QPushButton>("btnRouteEdit").isEnabled()); // nothing chosen yet

    d.add("work", "*@work.example, Me@Work.example", "smtp://me@work.example@smtp.work.example:587", {}, "w0rk");
    EXPECT_FALSE(d.formOpen());
    d.add("home", "*@home.example", "smtps://smtp.home.example", "work", "h0me pass");
    d.add("club", "club@club.example", "mail.club.example:2525");
    EXPECT_TRUE(d.status().contains("club")) << d.status().toStdString();
    EXPECT_FALSE(QFile::exists(d.bench.path("Routes.ini"))) << "nothing is written before Ecrire";

    // A rename follows into the fallbacks that name the route.
    d.edit("work", "office", "*@work.example", "smtps://me@work.example@smtp.work.example:465");
    d.select("club");
    d.click("btnRouteRemove");
    const QList<QStringList> shown{
        {"office", "*@work.example", "smtps://me@work.example@smtp.work.example:465", ""},
        {"home", "*@home.example", "smtps://smtp.home.example", "office"}};
    EXPECT_EQ(d.rows(), shown);

    d.write();
    const RouteTable table = d.written();
    EXPECT_EQ(table.errors(), QStringList());
    EXPECT_EQ(rowsOf(table), shown);
    EXPECT_EQ(table.find("office")->route.port, 465);
    EXPECT_EQ(table.find("office")->route.user, QByteArray("me@work.example"));
    EXPECT_EQ(d.rows(), shown);
    EXPECT_EQ(readFile(d.passwordFile("office")), "w0rk\n");
    EXPECT_EQ(readFile(d.passwordFile("home")), "h0me pass\n");
    EXPECT_TRUE(ownerOnly(d.passwordFile("office")));
    EXPECT_FALSE(QFile::exists(d.passwordFile("work")));
    EXPECT_FALSE(QFile::exists(d.passwordFile("club")));
    EXPECT_FALSE(readFile(d.bench.path("Routes.ini")).contains("w0rk"));
    EXPECT_TRUE(readFile(d.bench.path("maillog.txt")).contains(" Postiq: Writing Routes.ini"));

    // Stored routes: a rename without a new password moves the file; a removal deletes it and
    // leaves the other route without its fallback.
    d.edit("office", "job", "*@work.example", "smtps://me@work.example@smtp.work.example:465");
    d.select("home");
    d.click("btnRouteRemove");
    d.write();
    EXPECT_EQ(d.names(), QStringList{"job"});
    EXPECT_EQ(d.written().routes().size(), 1);
    EXPECT_EQ(readFile(d.passwordFile("job")), "w0rk\n");
    EXPECT_TRUE(ownerOnly(d.passwordFile("job")));
    EXPECT_FALSE(QFile::exists(d.passwordFile("office")));
    EXPECT_FALSE(QFile::exists(d.passwordFile("home")));

    // Opened again, the dialog shows the file.
    d.dialog->close();
    ASSERT_TRUE(spinUntil([&] { return d.bench.shell->configurationDialog() == nullptr; }, 2000));
    d.bench.shell->openConfiguration();
    d.dialog = d.bench.shell->configurationDialog();
    EXPECT_EQ(d.names(), QStringList{"job"});
}

// Two stored routes that swap their names (through a third) swap their password files too.
TEST(RoutesPage, RoutesThatSwapNamesKeepTheirPasswords)
{
    RoutesDialog d;
    d.add("a", "*@a.example", "smtp://a.example", {}, "pass-a");
    d.add("b", "*@b.example", "smtp://b.example", {}, "pass-b");
    d.write();
    d.edit("a", "c", "*@a.example", "smtp://a.example");
    d.edit("b", "a", "*@b.example", "smtp://b.example");
    d.edit("c", "b", "*@a.example", "smtp://a.example");
    d.write();
    EXPECT_EQ(d.written().find("b")->server, QByteArray("smtp://a.example"));
    EXPECT_EQ(readFile(d.passwordFile("b")), "pass-a\n");
    EXPECT_EQ(readFile(d.passwordFile("a")), "pass-b\n");
    EXPECT_FALSE(QFile::exists(d.passwordFile("c")));
}

// With a keyring the route's password goes there, under its own key, and into no file.
TEST(RoutesPage, ThePasswordGoesIntoTheKeyringUnderTheRoutesKey)
{
    RoutesDialog d({}, true);
    EXPECT_TRUE(d.control<QLabel>("lblRoutePasswordPlace").text().contains("trousseau"));
    d.add("work", "*@work.example", "smtp://me@work.example@smtp.work.example", {}, "s3cret");
    d.write();
    const QString key = RoutePasswordKey(d.bench.dir.path(), "work");
    ASSERT_TRUE(spinUntil([&] { return d.keyring->entries.contains(key); }, 2000));
    EXPECT_EQ(d.keyring->entries.value(key), QByteArray("s3cret"));
    EXPECT_FALSE(QFile::exists(d.passwordFile("work")));

    // A rename copies the entry to the new key.
    d.edit("work", "job", "*@work.example", "smtp://me@work.example@smtp.work.example");
    d.write();
    const QString renamed = RoutePasswordKey(d.bench.dir.path(), "job");
    ASSERT_TRUE(spinUntil([&] { return d.keyring->entries.contains(renamed); }, 2000));
    EXPECT_EQ(d.keyring->entries.value(renamed), QByteArray("s3cret"));
}

// What the form refuses, with a message, leaving the list as it was and the form open.
TEST(RoutesPage, BadNamesDuplicatesServersAndLoopsAreRefusedWithAMessage)
{
    RoutesDialog d;
    d.add("a", "*@a.example", "smtp://a.example");
    d.add("b", "*@b.example", "smtp://b.example", "a");
    d.add("c", "*@c.example", "smtp://c.example", "b");
    ASSERT_EQ(d.names(), (QStringList{"a", "b", "c"}));

    struct Case {
        QString name, senders, server, fallback, says;
    };
    const QList<Case> refused{
        {"bad name", "*@x", "smtp://x.example", {}, "Nom invalide"},
        {".hidden", "*@x", "smtp://x.example", {}, "Nom invalide"},
        {"", "*@x", "smtp://x.example", {}, "Nom invalide"},
        {"A", "*@x", "smtp://x.example", {}, "Une route porte déjà le nom A."},
        {"x", "a b@x.example", "smtp://x.example", {}, "Expéditeurs invalides"},
        {"x", "*@x", "", {}, "Serveur invalide"},
        {"x", "*@x", "smtp://", {}, "Serveur invalide"},
        {"x", "*@x", "smtps://me@", {}, "Serveur invalide"},
        {"x", "*@x", "http://x.example", {}, "Serveur invalide"},
        {"x", "*@x", "me@x.example", {}, "Serveur invalide"},
        {"x", "*@x", "x.example:99999", {}, "Serveur invalide"},
        {"x", "*@x", "x.example\nFallback = a", {}, "Serveur invalide"},
    };
    for (const Case& c : refused) {
        d.click("btnRouteAdd");
        d.fill(c.name, c.senders, c.server, c.fallback);
        d.click("btnRouteOk");
        EXPECT_TRUE(d.formOpen()) << c.name.toStdString() << " / " << c.server.toStdString();
        EXPECT_TRUE(d.problem().contains(c.says)) << d.problem().toStdString();
        d.click("btnRouteCancel");
    }

    // a falling back to c would close the ring c -> b -> a -> c.
    d.select("a");
    d.click("btnRouteEdit");
    d.fill("a", "*@a.example", "smtp://a.example", "c");
    d.click("btnRouteOk");
    EXPECT_TRUE(d.formOpen());
    EXPECT_TRUE(d.problem().contains("boucle")) << d.problem().toStdString();
    d.click("btnRouteCancel");
    EXPECT_EQ(d.names(), (QStringList{"a", "b", "c"}));
    EXPECT_EQ(d.rows()[0][3], QString());

    // "Ecrire" with the form open takes its route, or writes no route when it is refused.
    d.click("btnRouteAdd");
    d.fill("d", "*@d.example", "ftp://d.example");
    d.write();
    EXPECT_FALSE(QFile::exists(d.bench.path("Routes.ini")));
    EXPECT_TRUE(d.status().contains("Serveur invalide")) << d.status().toStdString();
    d.fill("d", "*@d.example", "smtp://d.example", "c");
    d.write();
    EXPECT_FALSE(d.formOpen());
    EXPECT_EQ(d.names(), (QStringList{"a", "b", "c", "d"}));
    EXPECT_EQ(d.written().routes().size(), 4);

    // A removed route's dependents lose their fallback, and the page names them.
    d.select("a");
    d.click("btnRouteRemove");
    EXPECT_TRUE(d.status().endsWith("Sans route de secours désormais: b.")) << d.status().toStdString();
    d.write();

    // Nothing refused reached the file.
    EXPECT_EQ(rowsOf(d.written()), d.rows());
    EXPECT_EQ(d.written().errors(), QStringList());
}

// A hostile Routes.ini: its faults are shown, its good routes listed, and it is not rewritten
// unless the page changes the routes.
TEST(RoutesPage, AHostileFileShowsItsErrorsAndItsGoodRoutes)
{
    const QByteArray hostile = "[good]\nSenders = *@good.example\nServer = smtp://smtp.good.example\n\n"
                               "[noserver]\nSenders = *@none.example\n\n"
                               "[stars]\nSenders = "
                               + QByteArray(10000, '*') + "\nServer = stars.example\n\n"
                               "[x]\nServer = x.example\nFallback = y\n"
                               "[y]\nServer = y.example\nFallback = X\n"
                               "[bad name]\nServer = z.example\n"
                               "garbage line\n\x01\xff\xfe\n";
    RoutesDialog d(hostile);
    const QLabel& errors = d.control<QLabel>("lblRouteErrors");
    EXPECT_FALSE(errors.isHidden());
    EXPECT_TRUE(errors.text().contains("Routes.ini contient des erreurs")) << errors.text().toStdString();
    for (const char* fault : {"noserver' has no Server", "longer than 1024", "loop back", "is not a route name"})
        EXPECT_TRUE(errors.text().contains(fault)) << fault;
    EXPECT_LT(errors.text().size(), 4000);
    EXPECT_EQ(d.names(), (QStringList{"good", "stars", "x", "y"}));

    d.click("btnWrite"); // nothing changed on the page: the file stays as the user wrote it
    EXPECT_EQ(readFile(d.bench.path("Routes.ini")), hostile);

    // y falls back to "X": the form finds the route whatever the letter case, and keeps it.
    d.select("y");
    d.click("btnRouteEdit");
    EXPECT_EQ(d.control<QComboBox>("cboRouteFallback").currentText(), QString("x"));
    d.click("btnRouteOk");
    EXPECT_EQ(d.rows()[3][3], QString("x"));

    d.select("stars");
    d.click("btnRouteRemove");
    d.write();
    EXPECT_EQ(d.written().errors(), QStringList());
    EXPECT_EQ(d.names(), (QStringList{"good", "x", "y"}));
    EXPECT_TRUE(errors.isHidden());
}

// A Routes.ini that cannot be read or written (here a folder of that name) is said on the page;
// the rest of the configuration is written all the same.
TEST(RoutesPage, AFileThatCannotBeWrittenIsSaidOnThePage)
{
    RoutesDialog d;
    d.dialog->close();
    ASSERT_TRUE(spinUntil([&] { return d.bench.shell->configurationDialog() == nullptr; }, 2000));
    ASSERT_TRUE(QDir().mkpath(d.bench.path("Routes.ini")));
    d.bench.shell->openConfiguration();
    d.dialog = d.bench.shell->configurationDialog();
    EXPECT_FALSE(d.control<QLabel>("lblRouteErrors").isHidden());
    EXPECT_EQ(d.table().rowCount(), 0);

    d.add("work", "*@work.example", "smtp://smtp.work.example", {}, "pw");
    QFile::remove(d.bench.path("Postiq.ini"));
    d.write();
    EXPECT_TRUE(d.status().startsWith("Routes.ini n'a pas pu être écrit")) << d.status().toStdString();
    EXPECT_TRUE(QFile::exists(d.bench.path("Postiq.ini")));
    EXPECT_FALSE(QFile::exists(d.passwordFile("work"))) << "no password for a route that was not written";
    EXPECT_EQ(d.names(), QStringList{"work"});
}

// Check runs the route's check without stopping the dialog: the button waits for the answer,
// and the answer's line is shown on the page.
TEST(RoutesPage, CheckShowsTheReportWhenItComes)
{
    RoutesDialog d("[work]\nSenders = *@work.example\nServer = smtp://me@127.0.0.1:"
                   + QByteArray::number(closedPort()) + "\n");
    QPushButton& check = d.control<QPushButton>("btnRouteCheck");
    EXPECT_FALSE(check.isEnabled());
    d.select("work");
    ASSERT_TRUE(check.isEnabled());
    check.click();
    EXPECT_FALSE(check.isEnabled());
    const QString checking = d.status();
    EXPECT_EQ(checking, QString("Vérification de la route work ..."));
    ASSERT_TRUE(spinUntil([&] { return d.status() != checking; }, 30000));
    EXPECT_FALSE(d.status().isEmpty());
    EXPECT_TRUE(check.isEnabled());
}

// Closing the dialog while a check runs is safe: the check goes with the page.
TEST(RoutesPage, ClosingInTheMiddleOfACheckIsSafe)
{
    RoutesDialog d("[work]\nServer = smtp://127.0.0.1:" + QByteArray::number(closedPort()) + "\n");
    d.select("work");
    d.click("btnRouteCheck");
    d.dialog->close();
    ASSERT_TRUE(spinUntil([&] { return d.bench.shell->configurationDialog() == nullptr; }, 2000));
    spinUntil([] { return false; }, 300);
    d.bench.shell->openConfiguration();
    EXPECT_NE(d.bench.shell->configurationDialog(), nullptr);
}
