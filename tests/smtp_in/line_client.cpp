#include "line_client.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace postiq::test {

namespace {
constexpr int kWaitSeconds = 5;
}

LineClient::~LineClient() { close(); }

bool LineClient::connectTo(quint16 port, const char* fromIp)
{
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd_ < 0)
        return false;
    timeval timeout{kWaitSeconds, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    ::inet_pton(AF_INET, fromIp, &from.sin_addr);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0)
        return false;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    return ::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
}

bool LineClient::send(const QByteArray& bytes)
{
    qsizetype sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.constData() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += n;
    }
    return fd_ >= 0;
}

bool LineClient::receive()
{
    if (fd_ < 0 || eof_)
        return false;
    char chunk[4096];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n == 0)
        eof_ = true;
    if (n <= 0)
        return false;
    buffer_.append(chunk, n);
    return true;
}

QByteArray LineClient::readLine()
{
    while (!buffer_.contains("\r\n")) {
        if (!receive())
            return {};
    }
    const qsizetype end = buffer_.indexOf("\r\n");
    const QByteArray line = buffer_.left(end);
    buffer_.remove(0, end + 2);
    return line;
}

bool LineClient::closedByPeer()
{
    while (receive()) {
    }
    return eof_ && buffer_.isEmpty();
}

void LineClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool spinUntil(const std::function<bool()>& done, int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done() || clock.hasExpired(milliseconds))
            loop.quit();
    });
    poll.start();
    if (!done())
        loop.exec();
    return done();
}

void runClient(const std::function<void()>& script)
{
    std::atomic<bool> finished{false};
    std::thread client([&] {
        script();
        finished = true;
    });
    // The client's own waits are bounded, so it always ends; this bound only keeps the loop going.
    spinUntil([&] { return finished.load(); }, 60000);
    client.join();
}

} // namespace postiq::test
