#include <QCoreApplication>
#include <gtest/gtest.h>

// Every test program gets an application object, so that sockets, timers and event loops work.
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
