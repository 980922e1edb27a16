#include "delivery/transmission.h"

namespace postiq {

QByteArray TransmissionText(const QByteArray& data)
{
    QByteArray out;
    out.reserve(data.size() + data.size() / 64 + 5);
    const char* p = data.constData();
    const char* const end = p + data.size();
    while (p < end) {
        // One line: its text up to the next CR or LF, copied whole.
        const char* lineEnd = p;
        while (lineEnd < end && *lineEnd != '\r' && *lineEnd != '\n')
            ++lineEnd;
        if (*p == '.')
            out += '.'; // the receiver takes the first of a line's leading dots away
        out.append(p, lineEnd - p);
        out += "\r\n"; // a proper CR LF, a bare CR or a bare LF alike, and one for a last line without
        if (lineEnd == end)
            break;
        p = lineEnd + ((*lineEnd == '\r' && lineEnd + 1 < end && lineEnd[1] == '\n') ? 2 : 1);
    }
    return out + ".\r\n";
}

} // namespace postiq
