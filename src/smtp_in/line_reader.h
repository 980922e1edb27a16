#pragma once

#include <QByteArray>
#include <optional>

namespace postiq {

// Turns the bytes a client sends into whole lines, whatever the packets: command lines up to
// CR LF, and in the DATA phase text lines, each with how it ended. Several lines in one packet
// come out one by one, and a line split across packets comes out once it is complete, so a
// pipelining client needs nothing special. A text line longer than kMostTextPiece comes out in
// pieces, so that what is held stays small whatever a client sends.
class LineReader {
public:
    static constexpr qsizetype kMostTextPiece = 64 * 1024;

    struct TextLine {
        QByteArray text;    // without its line end
        bool crLf = false;  // ended by CR LF; false for a bare CR or a bare LF
        bool ended = true;  // false: a piece of a longer line, whose rest follows
    };

    void append(const QByteArray& bytes);
    // The next command line without its CR LF; empty until one is complete.
    std::optional<QByteArray> nextCommand();
    // The next text line, or the next piece of a long one. A CR at the very end of what has come
    // may be the first half of a CR LF, so it waits for the next byte.
    std::optional<TextLine> nextTextLine();
    // Bytes received and not handed out yet.
    qsizetype held() const { return buffer_.size() - start_; }
    void clear();

private:
    QByteArray buffer_;
    qsizetype start_ = 0; // what lies before has been handed out
    qsizetype searched_ = 0; // no line end lies between start_ and here, so a long line is read once
};

} // namespace postiq
