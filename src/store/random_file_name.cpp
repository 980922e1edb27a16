#include <chrono>
#include <random>

#include "log/logs.h"
#include "platform/entropy.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"

namespace postiq {

namespace {
// A small, well-mixed 64-bit generator (splitmix64).
struct SplitMix64 {
    using result_type = quint64;
    quint64 state;
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return ~result_type(0); }
    result_type operator()()
    {
        quint64 z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
};
} // namespace

QByteArray DrawQueueName()
{
    // Seeded afresh on every call from a fine clock and the system's entropy, so that names
    // drawn in the same second (or by two running copies) still differ. A light generator:
    // two numbers are all it ever gives.
    const auto ticks = std::chrono::high_resolution_clock::now().time_since_epoch().count();
    SplitMix64 generator{quint64(ticks) ^ EntropyWord()};
    std::uniform_int_distribution<quint32> half(0, 983038);

    return QByteArray::number(half(generator), 16).toUpper()
        + QByteArray::number(half(generator), 16).toUpper();
}

QByteArray RandomFileGet(Logs& logs)
{
    return logs.guarded("MOD:FILESYSTEM[RandomFileGet]", [] { return DrawQueueName(); });
}

} // namespace postiq
