#pragma once

#include <QByteArrayList>
#include <QDataStream>
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
};

// A DNS server on a loopback UDP port of its own, answering MX queries from a table keyed by the
// asked name exactly as it came (unknown names get a name error). The thread's event loop serves
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

        QByteArray answer;
        QDataStream out(&answer, QIODevice::WriteOnly); // big-endian, as on the wire
        // A reply offering recursion, with a name error (3) or none, one question, the records.
        out << quint16(qFromBigEndian<quint16>(query.constData()) + (zone.reply == FakeReply::WrongId))
            << quint16(zone.reply == FakeReply::NameError ? 0x8183 : 0x8180) << quint16(1)
            << quint16(zone.records.size()) << quint32(0);
        out.writeRawData(query.constData() + 12, int(end + 5 - 12));
        for (const FakeMx& mx : zone.records) {
            QByteArray exchanger;
            for (const QByteArray& label : mx.labels)
                exchanger += char(label.size()) + label;
            exchanger += '\0';
            // A pointer to the asked name, type MX, class IN, then the TTL and the data.
            out << quint16(0xC00C) << quint16(15) << quint16(1) << mx.ttl << quint16(2 + exchanger.size())
                << mx.preference;
            out.writeRawData(exchanger.constData(), int(exchanger.size()));
        }
        return answer;
    }

    QUdpSocket socket_;
};

} // namespace postiq::test
