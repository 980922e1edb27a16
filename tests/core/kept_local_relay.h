#pragma once

#include <QDir>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>

#include "core/postiq_process.h"
#include "support/mail_client.h"

namespace postiq::test {

// The real relay, headless, on a free port of its own and keeping every message in its outbox.
struct KeptLocalRelay : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    quint16 port = freeListenPort();
    std::unique_ptr<PostiqProcess> relay;

    void SetUp() override
    {
        QDir().mkpath(folder);
        writeFile(folder + QStringLiteral("/Postiq.ini"),
                  "ListenPort\t" + QByteArray::number(port) + "\r\nKeepLocal\tOn\r\n");
        relay = std::make_unique<PostiqProcess>(folder, root.path() + QStringLiteral("/config"));
        ASSERT_TRUE(spinUntil([&] { return readFile(mailLog()).contains("Start of SMTP service"); }, 10000))
            << relay->standardError().constData();
    }
    QString mailLog() const { return folder + QStringLiteral("/maillog.txt"); }
};

} // namespace postiq::test
