// Many large messages at once through the real relay: each text goes to disk as it arrives, so
// the relay neither runs out of memory nor loses a byte.
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <gtest/gtest.h>
#include <iostream>
#include <string>

#include "core/kept_local_relay.h"
#include "store/message.h"
#include "store/queue_file_format.h"
#include "support/fakes.h"
#include "support/process_memory.h"
#include "support/thread_clients.h"

using namespace postiq;
using namespace postiq::test;

namespace {

constexpr qint64 kMegabyte = 1024 * 1024;
constexpr int kClients = 20;
constexpr qint64 kMessageBytes = (kSanitizerBuild ? 6 : 30) * kMegabyte;

// What a client sent and what it was told.
struct Sent {
    std::string reply;
    QByteArray hash; // of the text as it is to be stored
    qint64 size = 0;
};

// One message of about kMessageBytes, made as it is sent, in blocks of lines that name the client;
// a line now and then begins with a dot, stuffed on the wire and stored with one dot less.
Sent sendLargeMessage(uint16_t port, int client)
{
    Sent sent;
    BlockingConnection connection(port, 60000);
    const auto step = [&](const std::string& command, const char* expected) {
        return connection.send(command) && connection.readLine().value_or("").starts_with(expected);
    };
    if (!connection.readLine().value_or("").starts_with("220 ") || !step("HELO large\r\n", "250 ")
        || !step("MAIL FROM:<big@home.example>\r\n", "250 ")
        || !step("RCPT TO:<r" + std::to_string(client) + "@far.example>\r\n", "250 ") || !step("DATA\r\n", "354 ")) {
        sent.reply = "envelope refused";
        return sent;
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    const std::string head = "Subject: large " + std::to_string(client) + "\r\n\r\n";
    hash.addData(QByteArrayView(head.data(), qsizetype(head.size())));
    sent.size = qint64(head.size());
    bool ok = connection.send(head);
    for (int block = 0; ok && sent.size < kMessageBytes; ++block) {
        std::string wire;
        std::string stored;
        for (int line = 0; line < 64; ++line) {
            const std::string text = "client " + std::to_string(client) + " block " + std::to_string(block) + " line "
                + std::to_string(line) + ' ' + std::string(900, char('a' + (block + line) % 26)) + "\r\n";
            const bool dotted = line == 7;
            wire += (dotted ? ".." : "") + text;
            stored += (dotted ? "." : "") + text;
        }
        ok = connection.send(wire);
        hash.addData(QByteArrayView(stored.data(), qsizetype(stored.size())));
        sent.size += qint64(stored.size());
    }
    if (!ok || !connection.send(".\r\n")) {
        sent.reply = "text not sent";
        return sent;
    }
    sent.reply = connection.readLine().value_or("no reply");
    connection.send("QUIT\r\n");
    sent.hash = hash.result();
    return sent;
}

// The size and hash of a queue file's text below the relay's Received header, read in chunks.
std::pair<qint64, QByteArray> storedText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {-1, {}};
    LogBench bench;
    CMessage head(bench.logs);
    qint64 left = ReadQueueRecordHead(file, head);
    QByteArray start = file.read(4096); // the header: three folded lines
    const qsizetype end = start.indexOf("\r\n", start.indexOf("\r\n\t", start.indexOf("\r\n\t") + 1) + 1) + 2;
    if (!start.startsWith("Received: from ") || end < 2)
        return {-1, {}};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(QByteArrayView(start).sliced(end));
    left -= start.size();
    qint64 size = start.size() - end;
    while (left > 0) {
        const QByteArray chunk = file.read(std::min<qint64>(left, 1024 * 1024));
        if (chunk.isEmpty())
            return {-1, {}};
        hash.addData(chunk);
        size += chunk.size();
        left -= chunk.size();
    }
    return {size, hash.result()};
}

} // namespace

struct LargeMessages : KeptLocalRelay {};

TEST_F(LargeMessages, TwentyClientsSendingThirtyMegabytesAtOnceAreAllStoredWhole)
{
    spinUntil([] { return false; }, 300);
    const qint64 idle = MemoryOf(relay->processId(), "VmRSS");
    const auto sent = runInParallel(kClients, [&](int client) { return sendLargeMessage(port, client); },
                                    [] { spinUntil([] { return false; }, 20); });
    const qint64 peak = MemoryOf(relay->processId(), "VmHWM");
    std::cout << "memory: idle " << idle / kMegabyte << " MB, peak while receiving " << kClients << " x "
              << kMessageBytes / kMegabyte << " MB: " << peak / kMegabyte << " MB" << std::endl;
    ASSERT_TRUE(relay->running()) << relay->standardError().constData();

    QMap<QByteArray, qint64> expected; // hash -> size
    for (int client = 0; client < kClients; ++client) {
        EXPECT_EQ(sent[client].reply, "250 Message accepted for delivery") << "client " << client;
        expected.insert(sent[client].hash, sent[client].size);
    }
    const QDir outBox(folder + QStringLiteral("/OutBox"));
    const QStringList files = outBox.entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(files.size(), kClients);
    for (const QString& name : files) {
        EXPECT_FALSE(name.startsWith('.')) << "left behind: " << name.toStdString();
        const auto [size, hash] = storedText(outBox.filePath(name));
        EXPECT_TRUE(expected.contains(hash)) << name.toStdString() << " differs from every text sent";
        EXPECT_EQ(size, expected.value(hash, -2)) << name.toStdString();
        expected.remove(hash);
    }
    EXPECT_EQ(readFile(mailLog()).count("status=outbox"), kClients);
    if (!kSanitizerBuild) { // holding every text would take 600 MB and more
        EXPECT_LT(peak, idle + 80 * kMegabyte);
    }
}
