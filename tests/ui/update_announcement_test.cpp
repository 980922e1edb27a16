#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <gtest/gtest.h>

#include "support/mail_client.h"
#include "ui/update_announcement.h"

using namespace postiq;
using namespace postiq::test;

TEST(UpdateAnnouncement, ShowsBothLinesAndClosesOnUpdateOrTimeOut)
{
    int opened = 0;
    auto* window = new UpdateAnnouncement("3.1", "3.0", [&] { ++opened; });
    QPointer<UpdateAnnouncement> alive(window);
    window->show();
    EXPECT_EQ(window->objectName(), QString("FRMExistUpdate"));
    EXPECT_EQ(window->findChild<QLabel*>("lblNewVersion")->text(), QString(" La version 3.1 est disponible !"));
    EXPECT_EQ(window->findChild<QLabel*>("lblCurrentVersion")->text(), QString(" Version actuelle: 3.0"));
    EXPECT_TRUE(window->tmrTimeOut.isActive());
    EXPECT_EQ(window->tmrTimeOut.intervalAsDuration(), UpdateAnnouncement::kTimeout);
    window->findChild<QPushButton*>("btnUpdate")->click();
    EXPECT_EQ(opened, 1);
    EXPECT_TRUE(spinUntil([&] { return alive.isNull(); }, 2000));

    auto* waiting = new UpdateAnnouncement("3.1", "3.0", {});
    QPointer<UpdateAnnouncement> waitingAlive(waiting);
    waiting->show();
    waiting->tmrTimeOut.setInterval(10);
    waiting->tmrTimeOut.start();
    EXPECT_TRUE(spinUntil([&] { return waitingAlive.isNull(); }, 2000));
}
