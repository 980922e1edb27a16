#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <chrono>
#include <functional>

#include "dns/mx_lookup.h"

namespace postiq {

class Logs;
class Settings;

// The addresses of a mail host, asked of the DNS server that the MX lookups use (DNSServer), so
// that one server answers for the whole route. The system's resolver answers only where no DNS
// server is set. The questions run on the MX lookup workers; the event loop never waits.
class AddressResolver {
public:
    using Done = std::function<void(QList<QHostAddress>)>;

    AddressResolver(Logs& logs, const Settings& settings, MxLookupPool& lookups);

    // Gives `done` the addresses of `host`, IPv4 ones first: `knownAddresses` when it holds any
    // (the MX answer's, "192.0.2.1 2001:db8::1"), the host itself when it is an address literal
    // ("192.0.2.1", "[192.0.2.1]", "[IPv6:2001:db8::1]"), else the A and AAAA records of the
    // name. An empty list means not found, or no answer within `deadline`.
    // `done` always runs later, from the event loop, at most once, and never once `context` is
    // destroyed.
    void resolve(const QByteArray& host, const QByteArray& knownAddresses, QObject* context, Done done);
    // The same through the system's resolver whatever DNSServer says: a fixed outgoing server is
    // found as the computer finds it (hosts file, local domain), not as the Internet does.
    void resolveThroughSystem(const QByteArray& host, QObject* context, Done done);

    LookupTiming lookupTiming;                  // per question (tests shorten it)
    std::chrono::milliseconds deadline{15000}; // the longest a caller waits, questions queued included

private:
    void start(const QByteArray& host, const QByteArray& knownAddresses, QObject* context, Done done,
               bool throughSystem);

    Logs& logs_;
    const Settings& settings_;
    MxLookupPool& lookups_;
};

// The addresses among a text of addresses separated by spaces; what is not one is left out.
QList<QHostAddress> ParseAddresses(const QByteArray& text);

// The address that a host name is, literally: "192.0.2.1", "::1", "[192.0.2.1]" or
// "[IPv6:::1]"; a null address for a name.
QHostAddress AddressLiteral(const QByteArray& host);

} // namespace postiq
