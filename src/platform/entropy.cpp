#include "platform/entropy.h"

#include <chrono>
#include <sys/random.h>

namespace postiq {

quint64 EntropyWord()
{
    quint64 word = 0;
    // Never blocks once the pool is ready (long before a relay starts); should it fail anyway,
    // the clock alone still makes names drawn apart in time differ.
    if (::getrandom(&word, sizeof word, GRND_NONBLOCK) != ssize_t(sizeof word))
        word = quint64(std::chrono::steady_clock::now().time_since_epoch().count()) * 0x9E3779B97F4A7C15ull;
    return word;
}

} // namespace postiq
