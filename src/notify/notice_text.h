#pragma once

#include <QByteArray>
#include <functional>

namespace postiq {

class Clock;

// The MIME frame that the bounce and the delay notice share: the header block, the parts of a
// multipart/report and its closing boundary. Every line ends with CR LF, the last one included.
class NoticeText {
public:
    // `returned` is the text the notice carries back: the boundary is drawn until it is not in it.
    NoticeText(const QByteArray& host, const Clock& clock, const QByteArray& returned);
    // The same for a returned text that is not in memory: `occursIn` tells whether a drawn
    // boundary occurs in it.
    NoticeText(const QByteArray& host, const Clock& clock, const std::function<bool(const QByteArray&)>& occursIn);

    void line(const QByteArray& text = {});

    // The header block, the preamble and the opening of the text part up to its greeting line and
    // the blank after it.
    void opening(const QByteArray& subject, const QByteArray& to);
    // Opens a further part; a part whose content holds 8-bit bytes says so.
    void part(const QByteArray& description, const QByteArray& type, bool eightBit = false);
    // Appends the returned text to the last part, closes it and gives the whole text.
    QByteArray finish(const QByteArray& returned);
    // For a returned text written after it: the text so far, then what closes the last part.
    const QByteArray& text() const { return text_; }
    QByteArray closing() const;

private:
    QByteArray host_;
    QByteArray boundary_;
    const Clock& clock_;
    QByteArray text_;
};

// Settings::LocalHostName as notices print it: only the bytes a host name may hold (a NUL or a
// space would break the Message-ID), "localhost" when none is left.
QByteArray NoticeHostName(const QString& localHostName);

// A text as a notice may show it: bytes that are not printable ASCII become "?", and every line
// break is CR LF.
QByteArray PrintableText(const QByteArray& text);

// A text as the value of a status field: printable, on continuation lines when it has several
// (blank ones dropped, since a blank line would end the recipient's block).
QByteArray FieldValue(const QByteArray& text);

// The header block of a message text, up to and with the line break that ends its last line.
QByteArray HeaderBlock(const QByteArray& data);

} // namespace postiq
