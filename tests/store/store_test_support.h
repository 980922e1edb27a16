#pragma once

#include <QByteArray>
#include <QString>

#include "support/fakes.h"

namespace postiq::test {

// Runs an action that must end in the fatal report and returns the report's "Where: ..." line,
// or an empty text when the program did not end.
template <typename Action>
QString FatalReportOf(LogBench& bench, Action&& action)
{
    try {
        action();
    } catch (const ProgramEnded& ended) {
        if (ended.status == 1 && !bench.desktop.diagnostics.isEmpty())
            return bench.desktop.diagnostics.last();
    }
    return {};
}

// Little-endian number bytes, to build queue files by hand.
inline QByteArray U16(quint16 value)
{
    QByteArray bytes(2, '\0');
    bytes[0] = char(value & 0xFF);
    bytes[1] = char(value >> 8);
    return bytes;
}
inline QByteArray U32(quint32 value) { return U16(quint16(value)) + U16(quint16(value >> 16)); }

} // namespace postiq::test
