#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QHash>
#include <QList>
#include <QString>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace postiq::test {

// One MX record served: the exchanger is given as raw labels, so that a test can serve names no
// well-behaved server would.
struct FakeMx {
    uint16_t preference;
    QByteArrayList labels; // empty: the root name
    uint32_t ttl = 3600;
};

enum class FakeReply {
    Records,       // NOERROR with the records (none: an answer without MX)
    NameError,     // NXDOMAIN
    ServerFailure, // SERVFAIL
    Silent,        // never answers
    WrongId,       // answers with another query's ID
    Truncated,     // TC over UDP without records; the records over TCP
};

struct FakeZone {
    FakeReply reply = FakeReply::Records;
    QList<FakeMx> records;
};

// A DNS server on a loopback port of its own (UDP and TCP), answering MX queries from a table of
// zones keyed by the asked name exactly as it came (unknown names get NXDOMAIN). It runs in its own
// thread until destroyed.
class FakeDnsServer {
public:
    explicit FakeDnsServer(const char* address = "127.0.0.1");
    ~FakeDnsServer();
    FakeDnsServer(const FakeDnsServer&) = delete;
    FakeDnsServer& operator=(const FakeDnsServer&) = delete;

    bool listening() const { return udp_ >= 0 && tcp_ >= 0; }
    uint16_t port() const { return port_; }
    // The DNSServer setting that reaches this server.
    QString server() const;

    void set(const QByteArray& name, FakeZone zone);
    int queries() const { return queries_; }

private:
    void run();
    void serveUdp();
    void serveTcp();
    // The reply bytes, or nothing when the server keeps silent.
    QByteArray reply(const QByteArray& query, bool overTcp);

    QByteArray address_;
    bool v6_;
    int udp_ = -1;
    int tcp_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> queries_{0};
    std::mutex lock_;
    QHash<QByteArray, FakeZone> zones_;
    std::thread thread_;
};

} // namespace postiq::test
