#pragma once

#include <QByteArray>

namespace postiq {

class Clock;

// The frame that the bounce and the delay notice share: the header block, the three MIME parts
// and the returned message. Every line ends with CR LF, the last one included.
class NoticeText {
public:
    NoticeText(const QByteArray& localHostName, const Clock& clock);

    void line(const QByteArray& text = {});

    // The header block, the preamble and the opening of the text part up to its greeting line and
    // the blank after it.
    void opening(const QByteArray& subject, const QByteArray& to);
    // Opens the machine-readable part with its reporting host and date, and the blank after them.
    void reportPart();
    // Appends the returned message in the last part, closes the boundary and gives the whole text.
    QByteArray finish(const QByteArray& returnedData);

private:
    void partHeader(const QByteArray& description, const QByteArray& type);

    QByteArray host_;
    QByteArray boundary_;
    const Clock& clock_;
    QByteArray text_;
};

// Settings::LocalHostName as notices print it: without NULs.
QByteArray NoticeHostName(const QString& localHostName);

} // namespace postiq
