#pragma once

#include <QByteArray>
#include <QList>
#include <cstdint>

namespace postiq {

// One mail host of a domain.
struct MXRecord {
    int16_t Order = 0;  // MX preference, lower first
    QByteArray Host;
    QByteArray IP;      // never filled: delivery connects by host name
    double TTL = 0;     // kept and saved, never used to expire anything
    // The host's addresses as the MX answer brought them ("192.0.2.1 2001:db8::1"), for this
    // delivery only: neither the cache nor Hosts.dns keeps them.
    QByteArray Addresses{};
};

// An ordered list of mail hosts. Index 0 is a status entry, not a host: its Host is "NONE" when a
// lookup found nothing. Hosts are at 1..Count().
class CMXServer {
public:
    int16_t Order(int index) const;
    void setOrder(int index, int16_t value);
    QByteArray Host(int index) const;
    void setHost(int index, const QByteArray& value);
    QByteArray IP(int index) const;
    void setIP(int index, const QByteArray& value);
    double TTL(int index) const;
    void setTTL(int index, double value);

    void Add(int16_t order, const QByteArray& host, const QByteArray& ip, double ttl);
    int16_t Count() const;
    void Clear();

    const MXRecord& record(int index) const;
    MXRecord& record(int index);

private:
    QList<MXRecord> records_{MXRecord{}};
};

} // namespace postiq
