#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

// Mail programs on threads of their own, with plain blocking sockets. Clients that share the
// relay's event loop take turns with it and never press it the way real, independent programs
// do; these run truly in parallel with it. Every wait is bounded by the socket time-outs.
namespace postiq::test {

inline constexpr int kClientTimeoutMs = 5000;

// One blocking TCP connection from 127.0.0.1 to a port on 127.0.0.1.
class BlockingConnection {
public:
    explicit BlockingConnection(uint16_t port, int timeoutMs = kClientTimeoutMs);
    ~BlockingConnection();
    BlockingConnection(const BlockingConnection&) = delete;
    BlockingConnection& operator=(const BlockingConnection&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    // Writes all of `bytes` in one call, so that they leave in as few packets as the system makes.
    bool send(std::string_view bytes);
    // The next line without its CR LF; nothing on time-out or close.
    std::optional<std::string> readLine();
    // Everything that arrives until the peer closes or stays quiet for `quietMs`.
    std::string readUntilQuiet(int quietMs);
    void close();
    // Closes with SO_LINGER {1, 0}: the peer sees a reset instead of an orderly close.
    void reset();

private:
    int fd_ = -1;
    std::string received_; // read but not yet handed out as a line
};

// How handing over one message went, and where it stopped when it failed.
struct HandOver {
    enum Outcome { Accepted, Busy, Failed };
    Outcome outcome = Failed;
    std::string detail; // the step and what came back, for failure messages
};

// Greeting, HELO, MAIL, RCPT, DATA, `content` (which ends with CR LF and holds no lone dot
// line), the dot and QUIT on a connection of its own. Busy when the greeting is a 421 refusal.
HandOver handOverMessage(uint16_t port, const std::string& from, const std::string& to, const std::string& content);
// True when "250 Message accepted for delivery" came back.
bool sendOneMessage(uint16_t port, const std::string& from, const std::string& to, const std::string& content);

// ---- hostile clients; each opens its own connection and ends it as named ----

// Random bytes after the greeting, optionally ending with CR LF so that they form a command.
void sendRandomBytes(uint16_t port, std::mt19937& random, bool endWithCrLf);
// Several commands in one write (say a whole transaction with its QUIT), then reads the replies.
void sendBurst(uint16_t port, std::string_view commands);
// Each command in a write of its own, `gap` apart, without waiting for the replies; then reads them.
void sendApart(uint16_t port, const std::vector<std::string>& commands, std::chrono::microseconds gap = {});
// Half a command, then an orderly close, or a reset when `reset` is set.
void endMidCommand(uint16_t port, std::string_view half, bool reset);
// QUIT alone, and gone at once without waiting for the goodbye: closed, or reset.
void quitAndVanish(uint16_t port, bool reset);
// A valid envelope and part of the content, then an orderly close or a reset.
void endInData(uint16_t port, std::string_view partialContent, bool reset);

// Runs job(0) ... job(count - 1) each on a thread of its own and returns their results in order.
// Until all have finished, `whileWaiting` runs over and over on the calling thread (to serve its
// event loop, for instance); without it the calling thread sleeps.
template <typename Job>
auto runInParallel(int count, Job job, const std::function<void()>& whileWaiting = {})
    -> std::vector<std::invoke_result_t<Job&, int>>
{
    using Result = std::invoke_result_t<Job&, int>;
    struct Cell { // one per thread, so that no two threads write the same word (vector<bool>)
        Result value{};
    };
    std::vector<Cell> cells(count);
    std::atomic<int> finished = 0;
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            cells[i].value = job(i);
            ++finished;
        });
    while (finished < count) {
        if (whileWaiting)
            whileWaiting();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (std::thread& thread : threads)
        thread.join();
    std::vector<Result> results;
    for (Cell& cell : cells)
        results.push_back(std::move(cell.value));
    return results;
}

} // namespace postiq::test
