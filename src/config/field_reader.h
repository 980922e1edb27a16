#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace postiq {

// Reads a text file as a sequence of delimited items, the way the configuration and language
// files are read: an item ends at a comma or at the end of a line (CR LF, bare LF or bare CR);
// leading spaces are skipped; an item that begins with a double quote runs to the closing quote,
// which is dropped together with the rest of the item up to the next comma or line end. Every
// line gives at least one item, so an empty line reads as one empty item. A quote left open ends
// at the end of its line.
class FieldReader {
public:
    explicit FieldReader(const QByteArray& utf8Bytes);

    bool atEnd() const { return pos_ >= text_.size(); }
    // The next item; an empty text once the end is reached.
    QString next();

private:
    bool atLineEnd() const;
    void skipLineEnd();
    QString readQuoted();
    QString readPlain();
    void finishItem();

    QString text_;
    qsizetype pos_ = 0;
};

// Every item of the bytes, in order.
QStringList ReadFields(const QByteArray& utf8Bytes);

// The text without the spaces at both ends; other blanks (a form feed, a no-break space) stay.
QString TrimSpaces(const QString& text);

} // namespace postiq
