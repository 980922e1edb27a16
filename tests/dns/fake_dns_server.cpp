#include "dns/fake_dns_server.h"

#include <arpa/inet.h>
#include <ldns/ldns.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace postiq::test {

namespace {

constexpr int kPollMs = 20;

// Dotted text of a wire name, label bytes as they are.
QByteArray dottedName(const ldns_rdf* name)
{
    QByteArray text;
    const uint8_t* data = ldns_rdf_data(name);
    size_t pos = 0;
    while (pos < ldns_rdf_size(name) && data[pos] != 0) {
        const size_t length = data[pos++];
        if (!text.isEmpty())
            text += '.';
        text.append(reinterpret_cast<const char*>(data + pos), qsizetype(length));
        pos += length;
    }
    return text;
}

ldns_rdf* wireName(const QByteArrayList& labels)
{
    QByteArray wire;
    for (const QByteArray& label : labels)
        wire += char(label.size()) + label;
    wire += '\0';
    return ldns_rdf_new_frm_data(LDNS_RDF_TYPE_DNAME, size_t(wire.size()), wire.constData());
}

bool bindTo(int fd, const QByteArray& address, bool v6, uint16_t port)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (v6) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_port = htons(port);
        inet_pton(AF_INET6, address.constData(), &a.sin6_addr);
        return bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, address.constData(), &a.sin_addr);
    return bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

uint16_t boundPort(int fd)
{
    sockaddr_storage a{};
    socklen_t length = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    if (a.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
}

bool readExactly(int fd, char* buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = recv(fd, buffer + done, size - done, 0);
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

} // namespace

FakeDnsServer::FakeDnsServer(const char* address) : address_(address), v6_(std::strchr(address, ':'))
{
    const int family = v6_ ? AF_INET6 : AF_INET;
    // UDP and TCP on the same port number: the first free UDP port whose TCP twin is free too.
    for (int attempt = 0; attempt < 20 && !listening(); ++attempt) {
        udp_ = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        tcp_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (udp_ >= 0 && tcp_ >= 0 && bindTo(udp_, address_, v6_, 0)) {
            port_ = boundPort(udp_);
            if (bindTo(tcp_, address_, v6_, port_) && listen(tcp_, 8) == 0)
                break;
        }
        if (udp_ >= 0)
            close(udp_);
        if (tcp_ >= 0)
            close(tcp_);
        udp_ = tcp_ = -1;
    }
    if (listening())
        thread_ = std::thread([this] { run(); });
}

FakeDnsServer::~FakeDnsServer()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (udp_ >= 0)
        close(udp_);
    if (tcp_ >= 0)
        close(tcp_);
}

QString FakeDnsServer::server() const
{
    const QString host = QString::fromLatin1(address_);
    return (v6_ ? '[' + host + ']' : host) + ':' + QString::number(port_);
}

void FakeDnsServer::set(const QByteArray& name, FakeZone zone)
{
    const std::lock_guard guard(lock_);
    zones_.insert(name, std::move(zone));
}

void FakeDnsServer::run()
{
    while (!stop_) {
        pollfd fds[2] = {{udp_, POLLIN, 0}, {tcp_, POLLIN, 0}};
        if (poll(fds, 2, kPollMs) <= 0)
            continue;
        if (fds[0].revents & POLLIN)
            serveUdp();
        if (fds[1].revents & POLLIN)
            serveTcp();
    }
}

void FakeDnsServer::serveUdp()
{
    char buffer[4096];
    sockaddr_storage from{};
    socklen_t fromLength = sizeof from;
    const ssize_t n = recvfrom(udp_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n <= 0)
        return;
    const QByteArray answer = reply(QByteArray(buffer, n), false);
    if (!answer.isEmpty())
        sendto(udp_, answer.constData(), size_t(answer.size()), 0, reinterpret_cast<sockaddr*>(&from), fromLength);
}

void FakeDnsServer::serveTcp()
{
    const int client = accept4(tcp_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0)
        return;
    const timeval wait{1, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    unsigned char length[2];
    if (readExactly(client, reinterpret_cast<char*>(length), 2)) {
        QByteArray query(length[0] << 8 | length[1], '\0');
        if (readExactly(client, query.data(), size_t(query.size()))) {
            const QByteArray answer = reply(query, true);
            if (!answer.isEmpty()) {
                const QByteArray framed = QByteArray(1, char(answer.size() >> 8))
                    + char(answer.size() & 0xFF) + answer;
                send(client, framed.constData(), size_t(framed.size()), MSG_NOSIGNAL);
            }
        }
    }
    close(client);
}

QByteArray FakeDnsServer::reply(const QByteArray& queryBytes, bool overTcp)
{
    ++queries_;
    ldns_pkt* query = nullptr;
    if (ldns_wire2pkt(&query, reinterpret_cast<const uint8_t*>(queryBytes.constData()), size_t(queryBytes.size()))
            != LDNS_STATUS_OK
        || ldns_pkt_qdcount(query) != 1) {
        ldns_pkt_free(query);
        return {};
    }
    const ldns_rr* question = ldns_rr_list_rr(ldns_pkt_question(query), 0);
    const QByteArray name = dottedName(ldns_rr_owner(question));

    FakeZone zone;
    bool known;
    {
        const std::lock_guard guard(lock_);
        known = zones_.contains(name);
        zone = zones_.value(name);
    }
    if (!known)
        zone.reply = FakeReply::NameError;
    if (zone.reply == FakeReply::Silent) {
        ldns_pkt_free(query);
        return {};
    }

    ldns_pkt* answer = ldns_pkt_new();
    ldns_pkt_set_id(answer, zone.reply == FakeReply::WrongId ? uint16_t(ldns_pkt_id(query) + 1)
                                                              : ldns_pkt_id(query));
    ldns_pkt_set_qr(answer, true);
    ldns_pkt_set_rd(answer, ldns_pkt_rd(query));
    ldns_pkt_set_ra(answer, true);
    ldns_pkt_push_rr(answer, LDNS_SECTION_QUESTION, ldns_rr_clone(question));
    if (zone.reply == FakeReply::NameError)
        ldns_pkt_set_rcode(answer, LDNS_RCODE_NXDOMAIN);
    else if (zone.reply == FakeReply::ServerFailure)
        ldns_pkt_set_rcode(answer, LDNS_RCODE_SERVFAIL);

    const bool truncate = zone.reply == FakeReply::Truncated && !overTcp;
    ldns_pkt_set_tc(answer, truncate);
    if (!truncate) {
        for (const FakeMx& mx : std::as_const(zone.records)) {
            ldns_rr* rr = ldns_rr_new();
            ldns_rr_set_owner(rr, ldns_rdf_clone(ldns_rr_owner(question)));
            ldns_rr_set_type(rr, LDNS_RR_TYPE_MX);
            ldns_rr_set_class(rr, LDNS_RR_CLASS_IN);
            ldns_rr_set_ttl(rr, mx.ttl);
            ldns_rr_push_rdf(rr, ldns_native2rdf_int16(LDNS_RDF_TYPE_INT16, mx.preference));
            ldns_rr_push_rdf(rr, wireName(mx.labels));
            ldns_pkt_push_rr(answer, LDNS_SECTION_ANSWER, rr);
        }
    }

    uint8_t* wire = nullptr;
    size_t size = 0;
    QByteArray bytes;
    if (ldns_pkt2wire(&wire, answer, &size) == LDNS_STATUS_OK)
        bytes = QByteArray(reinterpret_cast<const char*>(wire), qsizetype(size));
    free(wire);
    ldns_pkt_free(answer);
    ldns_pkt_free(query);
    return bytes;
}

} // namespace postiq::test
