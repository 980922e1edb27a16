#include "delivery/transmission.h"

#include <cstring>

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
        if (lineEnd - p == 1 && *p == '.')
            out += '.'; // a lone dot would end the data here
        out.append(p, lineEnd - p);
        if (lineEnd == end)
            break;
        out += "\r\n"; // a proper CR LF, a bare CR or a bare LF alike
        p = lineEnd + ((*lineEnd == '\r' && lineEnd + 1 < end && lineEnd[1] == '\n') ? 2 : 1);
    }
    return out + "\r\n.\r\n";
}

} // namespace postiq
