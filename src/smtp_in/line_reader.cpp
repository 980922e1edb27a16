#include "smtp_in/line_reader.h"

#include <algorithm>

namespace postiq {

void LineReader::append(const QByteArray& bytes)
{
    // What was handed out goes first, so that the buffer holds at most one partial line and the
    // latest arrival.
    if (start_ > 0) {
        buffer_.remove(0, start_);
        searched_ -= start_;
        start_ = 0;
    }
    buffer_ += bytes;
}

std::optional<QByteArray> LineReader::nextCommand()
{
    const qsizetype end = buffer_.indexOf("\r\n", std::max(start_, searched_));
    if (end < 0) {
        searched_ = std::max(start_, buffer_.size() - 1); // a last CR may meet its LF later
        return std::nullopt;
    }
    QByteArray line = buffer_.mid(start_, end - start_);
    start_ = searched_ = end + 2;
    return line;
}

std::optional<LineReader::TextLine> LineReader::nextTextLine()
{
    const char* const begin = buffer_.constData() + start_;
    const char* const end = buffer_.constData() + buffer_.size();
    const char* const stop = std::find_if(buffer_.constData() + std::max(start_, searched_), end,
                                          [](char c) { return c == '\r' || c == '\n'; });
    if (stop == end || (*stop == '\r' && stop + 1 == end)) {
        searched_ = stop - buffer_.constData(); // a last CR may meet its LF later
        if (stop - begin < kMostTextPiece)
            return std::nullopt;
        start_ = searched_;
        return TextLine{QByteArray(begin, stop - begin), false, false};
    }
    const bool crLf = *stop == '\r' && stop[1] == '\n';
    TextLine line{QByteArray(begin, stop - begin), crLf};
    start_ = searched_ = (stop - buffer_.constData()) + (crLf ? 2 : 1);
    return line;
}

void LineReader::clear()
{
    buffer_ = QByteArray();
    start_ = searched_ = 0;
}

} // namespace postiq
