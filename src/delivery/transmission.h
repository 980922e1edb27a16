#pragma once

#include <QByteArray>

namespace postiq {

// What is sent for a stored message text after "354": every line that begins with "." gets one
// more dot in front, every line ends with CR LF (a bare CR or bare LF goes as CR LF, and a text
// that does not end with a line end gets one), and "." CR LF follows the last line at once.
//
// The text may come in chunks of any size: what a line needs from the chunk before it (whether
// it starts a line, whether a CR is waiting for its LF) is carried over, so that a chunk edge in
// the middle of a CR LF, or just before a line's leading dot, changes nothing on the wire.
class TextTransmitter {
public:
    // The wire form of the next chunk of the text.
    QByteArray encode(const QByteArray& chunk);
    // What ends the text: the last line's CR LF if it had none, then "." CR LF.
    QByteArray finish();

private:
    bool atLineStart_ = true;
    bool afterCr_ = false; // a CR was sent as CR LF: an LF right after it is the same line end
};

// The whole text at once.
QByteArray TransmissionText(const QByteArray& data);

} // namespace postiq
