// The inbound SMTP session on arbitrary bytes: a mail program connects, sends the input as it is
// and goes; the relay must answer, store or refuse, and free the slot.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QTcpServer>
#include <QTcpSocket>
#include <cstdlib>

#include "config/settings.h"
#include "dns/dns_cache.h"
#include "fuzz_bench.h"
#include "smtp_in/connexion.h"
#include "smtp_in/smtp_service.h"
#include "store/queue.h"

using namespace postiq;
using namespace postiq::fuzz;

namespace {
struct Relay {
    int argc = 1;
    char name[8] = "fuzz";
    char* argv[2] = {name, nullptr};
    QCoreApplication app{argc, argv};
    FuzzBench& bench = Bench();
    Settings settings;
    DnsCache cache;
    ConnectionTables tables{bench.logs, settings, cache};
    Queue queue{bench.dir.path()};
    SmtpService service{settings, bench.logs, cache, tables, queue};
    quint16 port = 0;
    int runs = 0;

    Relay()
    {
        settings.ConfigLoaded = true;
        queue.createMissingFolders();
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        port = probe.serverPort();
        probe.close();
        settings.ActiveSettings.ListenPort = static_cast<int16_t>(port);
        service.Demarrer();
        if (!service.isListening())
            std::abort();
    }
    bool slotsFree() const
    {
        for (int n = 1; n < ConnectionTables::kUpperBound; ++n)
            if (tables.InSession(n))
                return false;
        return true;
    }
    void emptyOutBox()
    {
        if (++runs % 1000 != 0)
            return;
        QDir outBox(queue.folderPath(QueueFolder::OutBox));
        for (const QString& name : outBox.entryList(QDir::Files | QDir::Hidden))
            outBox.remove(name);
    }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Relay relay;
    {
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, relay.port);
        client.write(reinterpret_cast<const char*>(data), qint64(size));
        client.disconnectFromHost();
        // Bounded: a slot still held after this long is a session that never ends.
        const QDeadlineTimer deadline(5000);
        while ((client.state() != QAbstractSocket::UnconnectedState || !relay.slotsFree()) && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        if (!relay.slotsFree())
            std::abort();
    }
    relay.bench.trimLogs();
    relay.emptyOutBox();
    return 0;
}
