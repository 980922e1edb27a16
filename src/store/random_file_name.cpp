#include <chrono>
#include <cmath>
#include <random>

#include "log/logs.h"
#include "store/message.h"

namespace postiq {

namespace {
constexpr double kNameRange = 983039.0;

// A uniform number in [0, 1): the top 53 bits of a draw, so that 1 itself can never come out.
double unitDraw(std::mt19937_64& generator) { return double(generator() >> 11) * 0x1.0p-53; }
} // namespace

QByteArray RandomFileGet(Logs& logs)
{
    return logs.guarded("MOD:FILESYSTEM[RandomFileGet]", [] {
        // Seeded afresh on every call from a fine clock and the system's entropy, so that names
        // drawn in the same second (or by two running copies) still differ.
        std::random_device entropy;
        const auto ticks = std::chrono::high_resolution_clock::now().time_since_epoch().count();
        std::seed_seq seed{quint32(ticks), quint32(quint64(ticks) >> 32), entropy(), entropy()};
        std::mt19937_64 generator(seed);

        QByteArray name;
        for (int half = 0; half < 2; ++half) {
            const auto value = qulonglong(std::floor(unitDraw(generator) * kNameRange));
            name += QByteArray::number(value, 16).toUpper();
        }
        return name;
    });
}

} // namespace postiq
