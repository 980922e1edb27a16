#include "dns/address_resolver.h"

#include <QCoreApplication>
#include <QHostInfo>
#include <QPointer>
#include <QTimer>

#include <atomic>
#include <memory>

#include "config/settings.h"
#include "log/html.h"
#include "log/logs.h"

namespace postiq {

namespace {

// One resolve under way. The answers and the deadline race to finish it; the first one does.
struct Pending {
    Logs* logs = nullptr;
    QByteArray host;
    QPointer<QObject> context;
    bool watched = false; // a context was given: its end cancels the call
    AddressResolver::Done done;
    QList<QHostAddress> found;
    int waiting = 0; // questions not answered yet
    bool finished = false;
    int hostLookup = -1; // the system resolver's lookup, to abort at the deadline
    // Tells the workers that a question still queued need not be asked any more.
    std::shared_ptr<std::atomic_bool> abandoned = std::make_shared<std::atomic_bool>(false);
};

void finish(Pending& pending)
{
    if (pending.finished)
        return;
    pending.finished = true;
    pending.abandoned->store(true);
    if (pending.hostLookup >= 0)
        QHostInfo::abortHostLookup(pending.hostLookup);
    if (pending.watched && !pending.context)
        return;

    // IPv4 first: a desktop's IPv6 route to the world is the one more often missing.
    QList<QHostAddress> addresses;
    for (const bool v4 : {true, false}) {
        for (const QHostAddress& address : std::as_const(pending.found)) {
            const bool isV4 = address.protocol() == QAbstractSocket::IPv4Protocol;
            if (isV4 == v4 && !addresses.contains(address))
                addresses.append(address);
        }
    }
    QByteArrayList texts;
    for (const QHostAddress& address : std::as_const(addresses))
        texts += address.toString().toLatin1();
    pending.logs->DbgAdd("<FONT COLOR='#FF8000'>DNS: " + HtmlEscape(pending.host)
                         + (texts.isEmpty() ? " has no address" : " is " + texts.join(' ')) + "</FONT><BR>");
    const AddressResolver::Done done = std::move(pending.done);
    done(addresses);
}

} // namespace

QList<QHostAddress> ParseAddresses(const QByteArray& text)
{
    QList<QHostAddress> addresses;
    for (const QByteArray& word : text.split(' ')) {
        const QHostAddress address(QString::fromLatin1(word));
        if (!word.isEmpty() && !address.isNull())
            addresses.append(address);
    }
    return addresses;
}

QHostAddress AddressLiteral(const QByteArray& host)
{
    QByteArray text = host.trimmed();
    if (text.startsWith('[') && text.endsWith(']')) {
        text = text.mid(1, text.size() - 2);
        if (text.startsWith("IPv6:"))
            text = text.mid(5);
    }
    // A scope ("fe80::1%eth0") names an interface of this computer, not of a mail host.
    if (text.contains('%'))
        return {};
    return QHostAddress(QString::fromLatin1(text));
}

AddressResolver::AddressResolver(Logs& logs, const Settings& settings, MxLookupPool& lookups)
    : logs_(logs), settings_(settings), lookups_(lookups)
{
}

void AddressResolver::resolve(const QByteArray& host, const QByteArray& knownAddresses, QObject* context, Done done)
{
    start(host, knownAddresses, context, std::move(done), false);
}

void AddressResolver::resolveThroughSystem(const QByteArray& host, QObject* context, Done done)
{
    start(host, {}, context, std::move(done), true);
}

void AddressResolver::start(const QByteArray& host, const QByteArray& knownAddresses, QObject* context, Done done,
                            bool throughSystem)
{
    auto pending = std::make_shared<Pending>();
    pending->logs = &logs_;
    pending->host = host;
    pending->context = context;
    pending->watched = context != nullptr;
    pending->done = std::move(done);
    // Timers and answers of the system's resolver need a receiver on this thread.
    QObject* receiver = context ? context : QCoreApplication::instance();

    const QHostAddress literal = AddressLiteral(host);
    pending->found = literal.isNull() ? ParseAddresses(knownAddresses) : QList<QHostAddress>{literal};
    if (!pending->found.isEmpty()) {
        QTimer::singleShot(0, receiver, [pending] { finish(*pending); });
        return;
    }

    // The deadline holds the call weakly: once it is finished, nothing of it need stay.
    const std::weak_ptr<Pending> watch = pending;
    QTimer::singleShot(deadline, receiver, [watch] {
        if (const std::shared_ptr<Pending> alive = watch.lock())
            finish(*alive);
    });

    // Read once: the settings may be reloaded while the questions are under way.
    const QString dnsServer = settings_.ActiveSettings.DNSServer.trimmed();
    if (dnsServer.isEmpty() || throughSystem) {
        const auto answered = [pending](const QHostInfo& info) {
            pending->hostLookup = -1; // over: nothing left to abort
            pending->found = info.addresses();
            finish(*pending);
        };
        pending->hostLookup = QHostInfo::lookupHost(QString::fromLatin1(host), receiver, answered);
        return;
    }

    // A and AAAA asked side by side, so that a silent server costs one time-out, not two.
    pending->waiting = 2;
    for (const bool ipv6 : {false, true}) {
        const auto abandoned = pending->abandoned;
        const LookupTiming timing = lookupTiming;
        lookups_.Run(
            [host, dnsServer, timing, ipv6, abandoned] {
                if (abandoned->load())
                    return QByteArray();
                return DNSLookup::LookupAddressesBlocking(host, dnsServer, timing, ipv6);
            },
            [pending](const QByteArray& result) {
                if (pending->finished)
                    return;
                if (result != kDnsTimeoutText)
                    pending->found += ParseAddresses(result);
                if (--pending->waiting == 0)
                    finish(*pending);
            });
    }
}

} // namespace postiq
