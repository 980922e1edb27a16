#include "support/thread_clients.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace postiq::test {

namespace {

timeval asTimeval(int milliseconds) { return {milliseconds / 1000, (milliseconds % 1000) * 1000}; }

// Reads the reply to one step and keeps it for the failure message.
bool expect(BlockingConnection& connection, std::string_view step, std::string_view start, HandOver& result)
{
    const std::optional<std::string> reply = connection.readLine();
    if (reply && reply->starts_with(start))
        return true;
    result.detail = std::string(step) + ": " + (reply ? *reply : std::string("no reply"));
    return false;
}

// Connects and reads the greeting; closed when there was none.
void greeted(BlockingConnection& connection)
{
    const std::optional<std::string> greeting = connection.readLine();
    if (!greeting || !greeting->starts_with("220 "))
        connection.close();
}

// A connection that has reached the DATA phase with a valid envelope.
bool inDataPhase(BlockingConnection& connection)
{
    HandOver ignored;
    for (const auto& [command, reply] : {std::pair{"HELO hostile\r\n", "250 "},
                                         std::pair{"MAIL FROM:<h@hostile.example>\r\n", "250 "},
                                         std::pair{"RCPT TO:<r@hostile.example>\r\n", "250 "},
                                         std::pair{"DATA\r\n", "354 "}}) {
        if (!connection.send(command) || !expect(connection, command, reply, ignored))
            return false;
    }
    return true;
}

} // namespace

BlockingConnection::BlockingConnection(uint16_t port, int timeoutMs)
{
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return;
    // Both time-outs bound every call, connect included (it obeys the send time-out).
    const timeval timeout = asTimeval(timeoutMs);
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    const int noDelay = 1; // every write leaves as a packet of its own, as the caller cut them
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        close();
}

BlockingConnection::~BlockingConnection() { close(); }

bool BlockingConnection::send(std::string_view bytes)
{
    while (isOpen() && !bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes.remove_prefix(size_t(sent));
    }
    return isOpen();
}

std::optional<std::string> BlockingConnection::readLine()
{
    while (isOpen()) {
        if (const size_t end = received_.find("\r\n"); end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 2);
            return line;
        }
        char chunk[4096];
        const ssize_t got = ::recv(fd_, chunk, sizeof chunk, 0);
        if (got <= 0) // closed, reset or timed out
            return std::nullopt;
        received_.append(chunk, size_t(got));
    }
    return std::nullopt;
}

std::string BlockingConnection::readUntilQuiet(int quietMs)
{
    std::string text = std::move(received_);
    received_.clear();
    pollfd waiting{fd_, POLLIN, 0};
    while (isOpen() && ::poll(&waiting, 1, quietMs) > 0) {
        char chunk[4096];
        const ssize_t got = ::recv(fd_, chunk, sizeof chunk, 0);
        if (got <= 0)
            break;
        text.append(chunk, size_t(got));
    }
    return text;
}

void BlockingConnection::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

void BlockingConnection::reset()
{
    if (fd_ < 0)
        return;
    const linger abortive{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    close();
}

HandOver handOverMessage(uint16_t port, const std::string& from, const std::string& to, const std::string& content)
{
    HandOver result;
    BlockingConnection connection(port);
    if (!connection.isOpen()) {
        result.detail = "connect: refused or timed out";
        return result;
    }
    const std::optional<std::string> greeting = connection.readLine();
    if (greeting && greeting->starts_with("421 ")) {
        result.outcome = HandOver::Busy;
        return result;
    }
    if (!greeting || !greeting->starts_with("220 ")) {
        result.detail = "greeting: " + greeting.value_or("none");
        return result;
    }
    const bool accepted = connection.send("HELO load\r\n") && expect(connection, "HELO", "250 Hello load", result)
        && connection.send("MAIL FROM:" + from + "\r\n") && expect(connection, "MAIL", "250 sender is", result)
        && connection.send("RCPT TO:" + to + "\r\n") && expect(connection, "RCPT", "250 recipient is", result)
        && connection.send("DATA\r\n") && expect(connection, "DATA", "354 ", result)
        && connection.send(content + ".\r\n")
        && expect(connection, "end of data", "250 Message accepted for delivery", result);
    if (!accepted)
        return result;
    result.outcome = HandOver::Accepted;
    // The goodbye is part of a polite client, but the message is already queued.
    if (connection.send("QUIT\r\n"))
        connection.readLine();
    return result;
}

bool sendOneMessage(uint16_t port, const std::string& from, const std::string& to, const std::string& content)
{
    return handOverMessage(port, from, to, content).outcome == HandOver::Accepted;
}

void sendRandomBytes(uint16_t port, std::mt19937& random, bool endWithCrLf)
{
    BlockingConnection connection(port);
    greeted(connection);
    std::uniform_int_distribution<int> size(1, 600);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string noise(size_t(size(random)), '\0');
    for (char& c : noise)
        c = char(byte(random));
    if (endWithCrLf)
        noise += "\r\n";
    connection.send(noise);
    connection.readUntilQuiet(5);
}

void sendBurst(uint16_t port, std::string_view commands)
{
    BlockingConnection connection(port);
    greeted(connection);
    connection.send(commands);
    connection.readUntilQuiet(5);
}

void sendApart(uint16_t port, const std::vector<std::string>& commands, std::chrono::microseconds gap)
{
    BlockingConnection connection(port);
    greeted(connection);
    for (const std::string& command : commands) {
        connection.send(command);
        std::this_thread::sleep_for(gap);
    }
    connection.readUntilQuiet(5);
}

void endMidCommand(uint16_t port, std::string_view half, bool reset)
{
    BlockingConnection connection(port);
    greeted(connection);
    connection.send(half);
    reset ? connection.reset() : connection.close();
}

void quitAndVanish(uint16_t port, bool reset)
{
    BlockingConnection connection(port);
    greeted(connection);
    connection.send("QUIT\r\n");
    reset ? connection.reset() : connection.close();
}

void endInData(uint16_t port, std::string_view partialContent, bool reset)
{
    BlockingConnection connection(port);
    greeted(connection);
    if (inDataPhase(connection))
        connection.send(partialContent);
    reset ? connection.reset() : connection.close();
}

} // namespace postiq::test
