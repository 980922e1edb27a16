#include "config/number_text.h"

#include <algorithm>

#include "log/fault.h"

namespace postiq {

int64_t NumberFromText(const QString& text, int64_t min, int64_t max, const QString& what)
{
    const auto notANumber = [&] {
        return Fault(ErrTypeMismatch, QStringLiteral("Type mismatch: %1 '%2' is not a number").arg(what, text));
    };
    qsizetype pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == u'+' || text[pos] == u'-'))
        negative = text[pos++] == u'-';
    if (pos == text.size())
        throw notANumber();

    // Accumulate with a ceiling so that any number of digits neither wraps nor overflows.
    constexpr int64_t kCeiling = int64_t(1) << 40;
    int64_t magnitude = 0;
    for (; pos < text.size(); ++pos) {
        const QChar c = text[pos];
        if (c < u'0' || c > u'9')
            throw notANumber();
        magnitude = std::min(magnitude * 10 + (c.unicode() - u'0'), kCeiling);
    }
    const int64_t value = negative ? -magnitude : magnitude;
    if (value < min || value > max)
        throw Fault(ErrOverflow, QStringLiteral("Overflow: %1 %2 is outside %3 to %4")
                                     .arg(what, text)
                                     .arg(min)
                                     .arg(max));
    return value;
}

} // namespace postiq
