#pragma once

#include <QByteArray>

namespace postiq {

// What is sent for a stored message text after "354": the text, CR LF, ".", CR LF. Stored texts
// are sent as they are, except what would let a remote server see the end of the data before the
// real one: a line that is a lone "." goes as "..", and a bare CR or bare LF goes as CR LF.
QByteArray TransmissionText(const QByteArray& data);

} // namespace postiq
