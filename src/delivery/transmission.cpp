#include "delivery/transmission.h"

namespace postiq {

QByteArray TextTransmitter::encode(const QByteArray& chunk)
{
    QByteArray out;
    out.reserve(chunk.size() + chunk.size() / 32 + 4);
    const char* p = chunk.constData();
    const char* const end = p + chunk.size();
    if (afterCr_ && p < end) {
        afterCr_ = false;
        if (*p == '\n')
            ++p; // the LF of a CR LF split between two chunks
    }
    while (p < end) {
        if (atLineStart_ && *p == '.')
            out += '.'; // the receiver takes the first of a line's leading dots away
        // The line's text up to the next CR or LF (or the chunk's end), copied whole.
        const char* lineEnd = p;
        while (lineEnd < end && *lineEnd != '\r' && *lineEnd != '\n')
            ++lineEnd;
        out.append(p, lineEnd - p);
        if (lineEnd == end) {
            atLineStart_ = atLineStart_ && lineEnd == p;
            break;
        }
        out += "\r\n"; // a proper CR LF, a bare CR or a bare LF alike
        atLineStart_ = true;
        p = lineEnd + 1;
        if (*lineEnd == '\r') {
            if (p == end)
                afterCr_ = true;
            else if (*p == '\n')
                ++p;
        }
    }
    return out;
}

QByteArray TextTransmitter::finish()
{
    const QByteArray end = atLineStart_ ? QByteArray(".\r\n") : QByteArray("\r\n.\r\n");
    atLineStart_ = true;
    afterCr_ = false;
    return end;
}

QByteArray TransmissionText(const QByteArray& data)
{
    TextTransmitter transmitter;
    QByteArray out = transmitter.encode(data);
    return out + transmitter.finish(); // in this order: the end depends on the text
}

} // namespace postiq
