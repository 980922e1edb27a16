#pragma once

#include <QString>
#include <cstdint>

namespace postiq {

// Converts the text of a whole number (optional sign, then decimal digits) to a value within
// [min, max]. Throws Fault(ErrTypeMismatch) for text that is not such a number, including the
// empty text, and Fault(ErrOverflow) for a number outside the range. `what` names the value in
// the fault's description.
int64_t NumberFromText(const QString& text, int64_t min, int64_t max, const QString& what);

} // namespace postiq
