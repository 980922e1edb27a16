#include "delivery/transmission.h"

namespace postiq {

QByteArray TransmissionText(const QByteArray& data)
{
    QByteArray out;
    out.reserve(data.size() + data.size() / 64 + 5);
    bool lineStart = true;
    for (qsizetype i = 0; i < data.size(); ++i) {
        const char c = data[i];
        if (c == '\r' || c == '\n') {
            if (c == '\r' && i + 1 < data.size() && data[i + 1] == '\n')
                ++i; // a proper CR LF
            out += "\r\n";
            lineStart = true;
            continue;
        }
        if (lineStart && c == '.') {
            const qsizetype next = i + 1;
            if (next == data.size() || data[next] == '\r' || data[next] == '\n')
                out += '.'; // a lone dot would end the data here
        }
        out += c;
        lineStart = false;
    }
    return out + "\r\n.\r\n";
}

} // namespace postiq
