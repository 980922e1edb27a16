#include <chrono>
#include <random>

#include "log/logs.h"
#include "store/message.h"

namespace postiq {

QByteArray RandomFileGet(Logs& logs)
{
    return logs.guarded("MOD:FILESYSTEM[RandomFileGet]", [] {
        // Seeded afresh on every call from a fine clock and the system's entropy, so that names
        // drawn in the same second (or by two running copies) still differ.
        std::random_device entropy;
        const auto ticks = std::chrono::high_resolution_clock::now().time_since_epoch().count();
        std::seed_seq seed{quint32(ticks), quint32(quint64(ticks) >> 32), entropy(), entropy()};
        std::mt19937_64 generator(seed);
        std::uniform_int_distribution<quint32> half(0, 983038);

        return QByteArray::number(half(generator), 16).toUpper()
            + QByteArray::number(half(generator), 16).toUpper();
    });
}

} // namespace postiq
