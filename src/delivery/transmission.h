#pragma once

#include <QByteArray>

namespace postiq {

// What is sent for a stored message text after "354": every line that begins with "." gets one
// more dot in front, every line ends with CR LF (a bare CR or bare LF goes as CR LF, and a text
// that does not end with a line end gets one), and "." CR LF follows the last line at once.
QByteArray TransmissionText(const QByteArray& data);

} // namespace postiq
