#pragma once

#include <QByteArrayList>
#include <QHostAddress>
#include <QHash>
#include <QNetworkDatagram>
#include <QUdpSocket>
#include <QtEndian>
#include <gtest/gtest.h>

namespace postiq::test {

// One MX record served; the exchanger is raw labels, so that a test can serve names no
// well-behaved server would (no labels: the root name).
struct FakeMx {
    quint16 preference;
    QByteArrayList labels;
    quint32 ttl = 3600;
};

enum class FakeReply { Records, NameError, Silent, WrongId };

struct FakeZone {
    FakeReply reply = FakeReply::Records;
    QList<FakeMx> records;
    // The name's own addresses: the answer to an A or AAAA question, and the additional section
    // of an MX answer that names this zone's name as an exchanger (with `additional` set there).
    QList<QHostAddress> addresses{};
    bool additional = false; // an MX answer carries its exchangers' addresses along
};

// A DNS server on a loopback UDP port of its own, answering MX, A and AAAA queries from a table
// keyed by the asked name exactly as it came (unknown names get a name error). The thread's event loop serves
// it, which a lookup keeps running while it waits.
class FakeDnsServer {
public:
    FakeDnsServer()
    {
        if (!socket_.bind(QHostAddress::LocalHost))
            ADD_FAILURE() << "no loopback UDP port for the fake DNS server";
        QObject::connect(&socket_, &QUdpSocket::readyRead, [this] {
            while (socket_.hasPendingDatagrams()) {
                const QNetworkDatagram query = socket_.receiveDatagram();
                if (const QByteArray answer = reply(query.data()); !answer.isEmpty())
                    socket_.writeDatagram(query.makeReply(answer));
            }
        });
    }

    QString server() const { return "127.0.0.1:" + QString::number(socket_.localPort()); }

    QHash<QByteArray, FakeZone> zones;
    int queries = 0; // every datagram received

private:
    QByteArray reply(const QByteArray& query)
    {
        ++queries;
        QByteArray name; // the question's name follows the 12-byte header, then its type and class
        qsizetype end = 12;
        for (int length; end < query.size() && (length = quint8(query[end])) != 0; end += 1 + length)
            name += (name.isEmpty() ? "" : ".") + query.mid(end + 1, length);
        const FakeZone zone = zones.value(name, {FakeReply::NameError, {}});
        if (query.size() < end + 5 || zone.reply == FakeReply::Silent)
            return {};

        const quint16 type = quint16(quint8(query[end + 1]) << 8 | quint8(query[end + 2]));
        QList<QByteArray> answers; // whole resource records after the question
        QList<QByteArray> additional;
        if (type == kTypeMx) {
            for (const FakeMx& mx : zone.records) {
                QByteArray exchanger;
                for (const QByteArray& label : mx.labels)
                    exchanger += char(label.size()) + label;
                exchanger += '\0';
                // A pointer to the asked name, then the preference and the exchanger.
                answers += record("\xC0\x0C", kTypeMx, mx.ttl, bigEndian(mx.preference) + exchanger);
                const FakeZone target = zones.value(mx.labels.join('.'));
                if (zone.additional) {
                    for (const QHostAddress& address : target.addresses)
                        additional += addressRecord(exchanger, address);
                }
            }
        } else {
            for (const QHostAddress& address : zone.addresses) {
                if ((address.protocol() == QAbstractSocket::IPv6Protocol) == (type == kTypeAaaa))
                    answers += addressRecord("\xC0\x0C", address);
            }
        }

        // A reply offering recursion, with a name error (3) or none, one question, the records.
        const quint16 id = qFromBigEndian<quint16>(query.constData()) + (zone.reply == FakeReply::WrongId);
        QByteArray answer = bigEndian(id)
            + bigEndian(quint16(zone.reply == FakeReply::NameError ? 0x8183 : 0x8180)) + bigEndian(quint16(1))
            + bigEndian(quint16(answers.size())) + bigEndian(quint16(0)) + bigEndian(quint16(additional.size()))
            + query.mid(12, end + 5 - 12);
        for (const QByteArray& rr : answers + additional)
            answer += rr;
        return answer;
    }

    static constexpr quint16 kTypeA = 1;
    static constexpr quint16 kTypeMx = 15;
    static constexpr quint16 kTypeAaaa = 28;

    static QByteArray bigEndian(quint16 value) { return QByteArray(1, char(value >> 8)) + char(value & 0xFF); }
    static QByteArray bigEndian(quint32 value) { return bigEndian(quint16(value >> 16)) + bigEndian(quint16(value)); }
    // One record of class IN: its owner (wire form), type, TTL and data.
    static QByteArray record(const QByteArray& owner, quint16 type, quint32 ttl, const QByteArray& data)
    {
        return owner + bigEndian(type) + bigEndian(quint16(1)) + bigEndian(ttl) + bigEndian(quint16(data.size())) + data;
    }
    static QByteArray addressRecord(const QByteArray& owner, const QHostAddress& address)
    {
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return record(owner, kTypeA, 300, bigEndian(address.toIPv4Address()));
        const Q_IPV6ADDR v6 = address.toIPv6Address();
        return record(owner, kTypeAaaa, 300, QByteArray(reinterpret_cast<const char*>(v6.c), 16));
    }

    QUdpSocket socket_;
};

} // namespace postiq::test
