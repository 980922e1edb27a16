#pragma once

#include <QByteArray>
#include <QString>

namespace postiq {

// Header values as a person reads them. Mail headers are 7-bit; a text in another character set
// travels as "encoded words" (=?charset?B?...?= in base 64, =?charset?Q?...?= quoted), and
// many mail programs also write raw UTF-8 or Latin-1. Nothing here trusts the input: whatever
// cannot be decoded is shown as it was written, and no input makes these read past their bytes.

// The value of a header field with its encoded words decoded. Words in UTF-8, Latin-1
// (ISO-8859-1) and US-ASCII are decoded; a word in another character set, with an unknown
// encoding letter, broken base 64, a broken "=XX" or bytes that are not valid in its character
// set stays as written. Blanks between two adjacent encoded words go, as the words form one text;
// bytes outside the words are read as UTF-8 when they are valid UTF-8, else as Latin-1. Line
// breaks and other control characters become blanks, so that the value fits one line.
QString DecodeHeaderWords(const QByteArray& value);

// The value of the first field `name` (any letter case) in the header block that begins `text`,
// unfolded; empty when the block has no such field before its end (an empty line or the end of
// `text`). Lines may end with CR LF or LF alone.
QByteArray HeaderFieldValue(const QByteArray& text, const QByteArray& name);

} // namespace postiq
