#pragma once

#include <QtGlobal>

namespace postiq {

// 64 bits from the kernel's entropy pool: one system call, no file to open.
quint64 EntropyWord();

} // namespace postiq
