#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <gtest/gtest.h>

#include "core/relay_commands.h"
#include "notify/notice.h"
#include "store/message.h"
#include "support/mail_client.h"
#include "ui/desktop_bench.h"
#include "ui/failure_notices.h"
#include "ui/message_text_view.h"
#include "ui/queue_model.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A desktop on a folder whose mail stays in OutBox: nothing is delivered under the tests' feet.
struct QueueDesk : ::testing::Test {
    DesktopBench bench{"KeepLocal\tOn\r\nLaunchStart\tOff\r\nAttemptDelay\t30\r\n"};

    void SetUp() override { bench.start(); }
    Queue& queue() { return bench.application->queue(); }
    Logs& logs() { return bench.application->logs(); }

    QByteArray enqueue(const QByteArray& subject, const QList<QByteArray>& recipients = {"<to@there.example>"},
                       const QByteArray& body = "hi\r\n")
    {
        return bench.enqueue(subject, recipients, body);
    }
    void fail(const QByteArray& id, QueueFolder to, const QByteArray& error) { bench.fail(id, to, error); }
    QueueWindow& openWindow()
    {
        bench.shell->showQueueWindow();
        QueueWindow& window = *bench.shell->queueWindow();
        window.model().loadAllHeads();
        return window;
    }
    static QString cell(QueueWindow& window, const QByteArray& id, int column)
    {
        QueueModel& model = window.model();
        return model.data(model.index(model.rowOf(id), column)).toString();
    }
    static void waitForHeads(QueueWindow& window)
    {
        spinUntil([&] { return window.model().pendingHeads() == 0; }, 5000);
    }
};

} // namespace

TEST_F(QueueDesk, OneRowPerMessageOfTheThreeFoldersWithEveryColumn)
{
    const QByteArray waiting = enqueue("=?utf-8?Q?R=C3=A9union_?= =?utf-8?B?ZGUgbHVuZGk=?=",
                                       {"<a@there.example>", "<b@there.example>"});
    const QByteArray deferred = enqueue("Plain subject");
    const QByteArray failed = enqueue("=?iso-8859-1?Q?=E9t=E9?=");
    fail(deferred, QueueFolder::Deferred, "421 4.3.2 try later\r\nsecond line");
    fail(failed, QueueFolder::Error, "550 5.1.1 no such user");

    QueueWindow& window = openWindow();
    ASSERT_EQ(window.model().rowCount(), 3);
    using M = QueueModel;
    EXPECT_EQ(cell(window, waiting, M::ColFolder), QString("OutBox"));
    EXPECT_EQ(cell(window, waiting, M::ColId), QString::fromLatin1(waiting));
    EXPECT_EQ(cell(window, waiting, M::ColSubject), QString("Réunion de lundi"));
    EXPECT_EQ(cell(window, waiting, M::ColSender), QString("<me@here.example>"));
    EXPECT_EQ(cell(window, waiting, M::ColRecipients), QString("<a@there.example>, <b@there.example>"));
    EXPECT_EQ(cell(window, waiting, M::ColAttempts), QString("0"));
    EXPECT_EQ(cell(window, waiting, M::ColNextTry), QString("dès que possible"));
    EXPECT_FALSE(cell(window, waiting, M::ColSize).isEmpty());
    EXPECT_EQ(cell(window, failed, M::ColSubject), QString("été"));

    EXPECT_EQ(cell(window, deferred, M::ColFolder), QString("Deferred"));
    EXPECT_EQ(cell(window, deferred, M::ColAttempts), QString("1"));
    // One line in the cell, the whole error in the tool-tip.
    EXPECT_EQ(cell(window, deferred, M::ColLastError), QString("421 4.3.2 try later second line"));
    QueueModel& model = window.model();
    EXPECT_EQ(model.data(model.index(model.rowOf(deferred), M::ColLastError), Qt::ToolTipRole).toString(),
              QString("421 4.3.2 try later\r\nsecond line"));
    // Deferred: tried again AttemptDelay minutes after its deferral.
    const QDateTime deferredAt = model.row(model.rowOf(deferred)).time;
    EXPECT_EQ(cell(window, deferred, M::ColNextTry), deferredAt.addSecs(30 * 60).toString("yyyy-MM-dd HH:mm:ss"));
    EXPECT_EQ(cell(window, deferred, M::ColArrival), deferredAt.toString("yyyy-MM-dd HH:mm:ss"));

    EXPECT_EQ(cell(window, failed, M::ColFolder), QString("Error"));
    EXPECT_EQ(cell(window, failed, M::ColNextTry), QString());
    EXPECT_EQ(model.headerData(M::ColSubject, Qt::Horizontal).toString(), QString("Objet"));
}

TEST_F(QueueDesk, RowsFollowTheQueueAsMessagesArriveMoveAndGo)
{
    QueueWindow& window = openWindow();
    EXPECT_EQ(window.model().rowCount(), 0);

    const QByteArray id = enqueue("Arrived while open");
    ASSERT_EQ(window.model().rowCount(), 1);
    waitForHeads(window);
    EXPECT_EQ(cell(window, id, QueueModel::ColSubject), QString("Arrived while open"));

    fail(id, QueueFolder::Deferred, "451 later");
    ASSERT_EQ(window.model().rowCount(), 1);
    waitForHeads(window);
    EXPECT_EQ(cell(window, id, QueueModel::ColFolder), QString("Deferred"));
    EXPECT_EQ(cell(window, id, QueueModel::ColLastError), QString("451 later"));

    queue().remove(QueueFolder::Deferred, id);
    EXPECT_EQ(window.model().rowCount(), 0);
    EXPECT_EQ(window.model().rowOf(id), -1);

    // A file that is no queue record shows as unreadable, and the window goes on.
    QFile junk(queue().filePath(QueueFolder::OutBox, "JUNK"));
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
    junk.write("\xff\xff\xff\xff not a record");
    junk.close();
    queue().announce(QueueFolder::OutBox, "JUNK", QueueChange::Added);
    waitForHeads(window);
    EXPECT_TRUE(cell(window, "JUNK", QueueModel::ColLastError).startsWith("illisible : "));
}

TEST_F(QueueDesk, SortsByAnyColumnAndTheFilterNarrowsTheRows)
{
    const QByteArray small = enqueue("Banana");
    const QByteArray large = enqueue("Apple", {"<to@there.example>"}, QByteArray(20000, 'x') + "\r\n");
    const QByteArray middle = enqueue("Cherry", {"<to@there.example>"}, QByteArray(5000, 'y') + "\r\n");
    QueueWindow& window = openWindow();
    QSortFilterProxyModel& proxy = window.proxy();
    const auto idsShown = [&] {
        QByteArrayList ids;
        for (int row = 0; row < proxy.rowCount(); ++row)
            ids << proxy.index(row, QueueModel::ColId).data().toString().toLatin1();
        return ids;
    };

    window.view().sortByColumn(QueueModel::ColSize, Qt::DescendingOrder);
    EXPECT_EQ(idsShown(), (QByteArrayList{large, middle, small})); // by bytes, not by the text "20 KB"
    window.view().sortByColumn(QueueModel::ColSubject, Qt::AscendingOrder);
    EXPECT_EQ(idsShown(), (QByteArrayList{large, small, middle}));

    window.filter().setText("cHeRrY");
    EXPECT_EQ(idsShown(), QByteArrayList{middle});
    EXPECT_EQ(window.findChild<QLabel*>("lblCount")->text(), QString("1 / 3 messages"));
    window.filter().setText(QString::fromLatin1(small));
    EXPECT_EQ(idsShown(), QByteArrayList{small});
    window.filter().clear();
    EXPECT_EQ(proxy.rowCount(), 3);
}

TEST_F(QueueDesk, RetryAndDeleteGoThroughTheRelayAndDeleteAsksWithoutWaiting)
{
    const QByteArray deferred = enqueue("To retry");
    const QByteArray doomed = enqueue("To delete");
    fail(deferred, QueueFolder::Deferred, "451 later");
    QueueWindow& window = openWindow();

    window.selectId(deferred);
    window.findChild<QPushButton*>("btnRetry")->click();
    EXPECT_EQ(queue().find(deferred), QueueFolder::OutBox);
    waitForHeads(window);
    EXPECT_EQ(cell(window, deferred, QueueModel::ColFolder), QString("OutBox"));
    EXPECT_TRUE(window.findChild<QLabel*>("lblStatus")->text().contains("sent back to OutBox"));

    window.selectId(doomed);
    window.findChild<QPushButton*>("btnDelete")->click();
    QMessageBox* question = window.deleteQuestion();
    ASSERT_NE(question, nullptr); // shown, and the click has returned: nothing waits for the answer
    EXPECT_TRUE(question->isVisible());
    EXPECT_TRUE(question->text().contains(QString::fromLatin1(doomed)));
    question->button(QMessageBox::No)->click();
    EXPECT_EQ(queue().find(doomed), QueueFolder::OutBox);

    window.findChild<QPushButton*>("btnDelete")->click();
    window.selectId(deferred); // the selection moves on: the message asked about is the one deleted
    window.deleteQuestion()->button(QMessageBox::Yes)->click();
    EXPECT_FALSE(queue().find(doomed).has_value());
    EXPECT_TRUE(queue().find(deferred).has_value());
    EXPECT_EQ(window.model().rowOf(doomed), -1);
}

TEST_F(QueueDesk, ShowTextReadsTheMessageAsSentAndOpenFolderNamesItsFolder)
{
    const QByteArray id = enqueue("Dots", {"<to@there.example>"}, "..a line that began with a dot\r\nend\r\n");
    QStringList opened;
    QueueWindow window({.queue = queue(),
                        .logs = logs(),
                        .attemptDelayMinutes = [] { return 30; },
                        .command = [](const QByteArray&, const QByteArray&) { return ControlAnswer::done(); },
                        .openFolder = [&](const QString& path) { opened << path; },
                        .relabel = [](QWidget&) {},
                        .text = [](const char*, const QString& french) { return french; }});
    window.model().loadAllHeads();

    window.openFolder();
    window.selectId(id);
    window.showSelectedText();
    window.openFolder();
    EXPECT_EQ(opened, (QStringList{queue().folderPath(QueueFolder::OutBox), queue().folderPath(QueueFolder::OutBox)}));

    auto* viewer = window.findChild<MessageTextView*>("frmMessageText");
    ASSERT_NE(viewer, nullptr);
    spinUntil([&] { return !viewer->loading(); }, 5000);
    EXPECT_TRUE(viewer->text().isReadOnly());
    EXPECT_EQ(viewer->text().toPlainText(),
              QString("From: me@here.example\nSubject: Dots\n\n.a line that began with a dot\nend\n"));
}

TEST(MessageText, DotsAreUndoneAcrossChunkEdges)
{
    TextUnstuffer unstuffer;
    QByteArray out;
    for (const QByteArray& chunk : {QByteArray("a\r\n."), QByteArray(".b\r\n"), QByteArray(".c\r\n.")})
        out += unstuffer.take(chunk);
    out += unstuffer.finish();
    EXPECT_EQ(out, QByteArray("a\n.b\n.c\n."));
}

TEST_F(QueueDesk, AQueueOfThousandsOpensAtOnceAndFillsInBatches)
{
    // Copies of one record under thousands of names: as the window sees them, without thousands
    // of durable writes.
    const QByteArray first = enqueue("Many");
    QFile original(queue().filePath(QueueFolder::OutBox, first));
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QByteArray record = original.readAll();
    constexpr int kMessages = 3000;
    for (int i = 1; i < kMessages; ++i) {
        QFile copy(queue().filePath(QueueFolder::OutBox, "M" + QByteArray::number(i)));
        ASSERT_TRUE(copy.open(QIODevice::WriteOnly));
        copy.write(record);
    }

    QElapsedTimer timer;
    timer.start();
    bench.shell->showQueueWindow();
    QueueWindow& window = *bench.shell->queueWindow();
    const qint64 opening = timer.elapsed();
    EXPECT_EQ(window.model().rowCount(), kMessages);
    EXPECT_EQ(window.model().pendingHeads(), kMessages); // nothing read yet: the window is already up
    EXPECT_LT(opening, 1500);

    // One turn of the loop reads one batch, then lets everything else run.
    spinUntil([&] { return window.model().pendingHeads() < kMessages; }, 5000);
    EXPECT_GE(window.model().pendingHeads(), kMessages - 2 * QueueModel::kHeadsPerTurn);
    waitForHeads(window);
    EXPECT_EQ(window.model().pendingHeads(), 0);
    EXPECT_EQ(cell(window, "M2999", QueueModel::ColSubject), QString("Many"));
}

TEST_F(QueueDesk, TheTrayToolTipCountsWhatWaitsAndWhatFailed)
{
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Arrêté]"));
    enqueue("one");
    const QByteArray later = enqueue("two");
    const QByteArray failed = enqueue("three");
    fail(later, QueueFolder::Deferred, "451");
    fail(failed, QueueFolder::Error, "550");
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Arrêté] — 2 en attente, 1 en erreur"));
    bench.shell->menu().mnustart->trigger();
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Démarré] — 2 en attente, 1 en erreur"));
    queue().remove(QueueFolder::Error, failed);
    EXPECT_EQ(bench.shell->trayIcon().toolTip(), QString("Postiq 3.0 [Démarré] — 2 en attente, 0 en erreur"));
}

TEST(QueueDeskEnglish, CountsAndColumnsComeFromTheLanguageFile)
{
    QFile english(QStringLiteral(POSTIQ_SOURCE_DIR "/language/en.ini"));
    ASSERT_TRUE(english.open(QIODevice::ReadOnly));
    DesktopBench bench("Language\ten\r\nKeepLocal\tOn\r\n");
    bench.writeLanguage("en", english.readAll());
    bench.start();
    bench.enqueue("x");
    EXPECT_TRUE(bench.shell->trayIcon().toolTip().endsWith("— 1 waiting, 0 in error"));

    bench.shell->menu().mnuqueue->trigger();
    QueueWindow& window = *bench.shell->queueWindow();
    EXPECT_EQ(window.windowTitle(), QString("Postiq - Queue"));
    EXPECT_EQ(window.model().headerData(QueueModel::ColNextTry, Qt::Horizontal).toString(), QString("Next try"));
    window.model().loadAllHeads();
    EXPECT_EQ(window.model().index(0, QueueModel::ColNextTry).data().toString(), QString("as soon as possible"));
    EXPECT_EQ(window.findChild<QPushButton*>("btnRetry")->text(), QString("Retry now"));
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST_F(QueueDesk, FailuresCloseTogetherMakeOneNotice)
{
    FailureNotices notices(queue(), logs(), [](const char*, const QString& french) { return french; },
                           std::chrono::milliseconds(300));
    QStringList told;
    QObject::connect(&notices, &FailureNotices::notice, [&](const QString& text) { told << text; });
    QByteArrayList ids;
    for (int i = 0; i < 3; ++i)
        ids << enqueue("batch");
    for (const QByteArray& id : ids)
        fail(id, QueueFolder::Error, "550");
    fail(enqueue("only deferred"), QueueFolder::Deferred, "451"); // nothing to tell
    EXPECT_TRUE(told.isEmpty()); // not before the grouping time is over
    ASSERT_TRUE(spinUntil([&] { return !told.isEmpty(); }, 3000));
    spinUntil([] { return false; }, 400);
    ASSERT_EQ(told.size(), 1);
    EXPECT_EQ(told.first(), QString("3 messages ont été placés dans Error"));

    // A bounce is told; a delay notice is not.
    CMessage original(logs());
    queue().read(QueueFolder::Error, ids.first(), original);
    for (const NoticeKind kind : {NoticeKind::Delay, NoticeKind::Bounce}) {
        NoticeRequest request{kind, &original, QDateTime::currentDateTime(),
                              {{"<to@there.example>", "5.1.1", "mx.there.example", "550 no"}}};
        CMessage notice = BuildNotice(logs(), bench.application->settings(), bench.clock, request);
        queue().enqueue(notice);
    }
    fail(enqueue("alone"), QueueFolder::Error, "550");
    ASSERT_TRUE(spinUntil([&] { return told.size() == 2; }, 3000));
    const QString text = told.last();
    EXPECT_TRUE(text.startsWith("Le message ")) << text.toStdString();
    EXPECT_TRUE(text.endsWith("a été placé dans Error\nUn avis de non-remise a été envoyé à <me@here.example>"))
        << text.toStdString();
}

TEST(QueueDeskNoTray, FailuresAreToldInABoxThatWaitsForNobody)
{
    DesktopBench bench("KeepLocal\tOn\r\n", false);
    bench.start();
    const QByteArray id = bench.enqueue("x");
    bench.application->queue().moveToError(QueueFolder::OutBox, id);
    ASSERT_TRUE(spinUntil([&] { return !bench.desktop.notices.isEmpty(); }, 4000));
    EXPECT_EQ(bench.desktop.notices.first().text,
              "Le message " + QString::fromLatin1(id) + " a été placé dans Error");
}

TEST(QueueDeskNoTray, ClosingTheOnlyWindowAsksWhetherToQuit)
{
    DesktopBench bench({}, false);
    bench.start();
    MainWindow& window = bench.shell->mainWindow();
    ASSERT_TRUE(window.isVisible());
    int finished = 0;
    QObject::connect(bench.application.get(), &Application::finished, [&] { ++finished; });

    window.close();
    EXPECT_TRUE(window.isVisible()); // not hidden out of reach
    QMessageBox* question = window.quitQuestion();
    ASSERT_NE(question, nullptr);
    EXPECT_TRUE(question->isVisible());
    window.close(); // a second click on the close box: still one question
    EXPECT_EQ(window.findChildren<QMessageBox*>().size(), 1);
    question->button(QMessageBox::No)->click();
    EXPECT_EQ(finished, 0);
    EXPECT_TRUE(window.isVisible());

    window.showMinimized(); // minimising is not closing
    EXPECT_FALSE(window.quitQuestion() && window.quitQuestion()->isVisible());

    window.close();
    window.quitQuestion()->button(QMessageBox::Yes)->click();
    EXPECT_EQ(finished, 1);
}

TEST(QueueDeskTray, ClosingTheWindowHidesItAndTheIconsFollowTheService)
{
    DesktopBench bench("LaunchStart\tOff\r\n");
    bench.start();
    MainWindow& window = bench.shell->mainWindow();
    const auto image = [](const QIcon& icon) { return icon.pixmap(16, 16).toImage(); };
    const QIcon started(":/icons/tray_started.svg");
    const QIcon stopped(":/icons/tray_stopped.svg");
    EXPECT_EQ(image(window.windowIcon()), image(stopped));
    EXPECT_EQ(image(bench.shell->trayIcon().icon()), image(stopped));

    bench.shell->menu().mnustart->trigger();
    bench.shell->showQueueWindow();
    EXPECT_EQ(image(window.windowIcon()), image(started));
    EXPECT_EQ(image(bench.shell->trayIcon().icon()), image(started));
    EXPECT_EQ(image(bench.shell->queueWindow()->windowIcon()), image(started));
    EXPECT_NE(image(started), image(stopped));

    window.show();
    window.close();
    EXPECT_FALSE(window.isVisible());
    EXPECT_EQ(window.quitQuestion(), nullptr);
}

TEST(QueueDeskCommands, ShowQueueOpensTheWindowOfARelayWithWindowsOnly)
{
    DesktopBench bench;
    bench.start();
    EXPECT_EQ(CarryOutRelayCommand(*bench.application, "showqueue", {}).line(), QByteArray("ok"));
    ASSERT_NE(bench.shell->queueWindow(), nullptr);
    EXPECT_TRUE(bench.shell->queueWindow()->isVisible());

    // The main window's button opens the same window.
    bench.shell->queueWindow()->close();
    spinUntil([&] { return bench.shell->queueWindow() == nullptr; }, 2000);
    bench.shell->mainWindow().queueButton().click();
    ASSERT_NE(bench.shell->queueWindow(), nullptr);

    LogBench headless;
    Application alone(headless.dir.path(), {headless.desktop, bench.registry, bench.network, bench.clock});
    EXPECT_TRUE(CarryOutRelayCommand(alone, "showqueue", {}).line().startsWith("refused: "));
}
