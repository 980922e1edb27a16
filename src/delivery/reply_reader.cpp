#include "delivery/reply_reader.h"

namespace postiq {

namespace {
// The code of a reply line: three digits followed by a space, a hyphen or nothing; -1 otherwise.
int lineCode(const QByteArray& line)
{
    if (line.size() < 3 || (line.size() > 3 && line[3] != ' ' && line[3] != '-'))
        return -1;
    int code = 0;
    for (int i = 0; i < 3; ++i) {
        if (line[i] < '0' || line[i] > '9')
            return -1;
        code = code * 10 + (line[i] - '0');
    }
    return code;
}

bool isLastLine(const QByteArray& line) { return line.size() == 3 || line[3] == ' '; }
} // namespace

QByteArray ServerReply::text() const { return lines.join("\r\n"); }

void ReplyReader::clear()
{
    pending_.clear();
    lines_.clear();
    code_ = -1;
    nonsense_ = false;
}

std::optional<ServerReply> ReplyReader::next()
{
    for (;;) {
        const qsizetype end = pending_.indexOf('\n');
        if (end < 0) {
            if (pending_.size() > kMaxLine) {
                // A line without end: what came so far is one nonsense reply.
                ServerReply reply{0, {pending_.left(kMaxLine)}};
                clear();
                return reply;
            }
            return std::nullopt;
        }
        QByteArray line = pending_.left(end);
        pending_.remove(0, end + 1);
        if (line.endsWith('\r'))
            line.chop(1);
        const int code = lineCode(line);
        if (code < 0 || (code_ >= 0 && code != code_) || line.size() > kMaxLine)
            nonsense_ = true;
        if (code_ < 0)
            code_ = code;
        lines_.append(line.left(kMaxLine));
        // A line that is no reply line ends the reply at once: waiting for a last line that may
        // never come would stall the session.
        const bool last = code >= 0 && isLastLine(line);
        if (code < 0 || last || lines_.size() >= kMaxLines) {
            ServerReply reply{nonsense_ || !last ? 0 : code_, lines_};
            lines_.clear();
            code_ = -1;
            nonsense_ = false;
            return reply;
        }
    }
}

Extensions Extensions::fromEhloReply(const ServerReply& reply)
{
    Extensions offered;
    // The first line greets; each following line names one extension and its parameters.
    for (qsizetype i = 1; i < reply.lines.size(); ++i) {
        QList<QByteArray> words = reply.lines[i].mid(4).toUpper().replace('=', ' ').simplified().split(' ');
        const QByteArray keyword = words.takeFirst();
        if (keyword == "SIZE")
            offered.size = true;
        else if (keyword == "8BITMIME")
            offered.eightBitMime = true;
        else if (keyword == "STARTTLS")
            offered.startTls = true;
        else if (keyword == "PIPELINING")
            offered.pipelining = true;
        else if (keyword == "AUTH")
            offered.auth += words;
    }
    return offered;
}

} // namespace postiq
