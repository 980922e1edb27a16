#pragma once

#include <QTcpServer>
#include <QTemporaryDir>
#include <memory>

#include "core/application.h"
#include "platform/network_discovery.h"
#include "support/fakes.h"
#include "support/memory_registry.h"
#include "ui/desktop_shell.h"

namespace postiq::test {

class FixedNetwork : public NetworkDiscovery {
public:
    NetworkParams query() override { return {QStringLiteral("desk"), {QStringLiteral("127.0.0.1")}}; }
};

// A whole program with its windows on a temporary folder, started in this process, its service
// on a free port and its version check pointed at a local port where nothing answers.
struct DesktopBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    MemoryRegistry registry;
    FixedNetwork network;
    FixedClock clock;
    quint16 port = 0;
    std::unique_ptr<Keyring> keyring; // handed to the application at start(); none: the file only
    std::unique_ptr<Application> application;
    std::unique_ptr<DesktopShell> shell;

    // `ini` is added to Postiq.ini after the listening port; `language` files go to language/.
    explicit DesktopBench(const QByteArray& ini = {}, bool trayAvailable = true,
                          UpdateServer updateServer = {QStringLiteral("127.0.0.1"), 9});
    ~DesktopBench();

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    void writeLanguage(const QString& name, const QByteArray& text);
    void start();

    // After start(): a message queued in OutBox (one file: the recipients share a domain), and an
    // OutBox message moved after a failed attempt, as delivery moves it.
    QByteArray enqueue(const QByteArray& subject, const QList<QByteArray>& recipients = {"<to@there.example>"},
                       const QByteArray& body = "hi\r\n");
    void fail(const QByteArray& id, QueueFolder to, const QByteArray& error);

private:
    QByteArray ini_;
    bool trayAvailable_;
    UpdateServer updateServer_;
};

// A loop-back port with nothing behind it.
quint16 closedPort();

} // namespace postiq::test
