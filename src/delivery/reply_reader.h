#pragma once

#include <QByteArray>
#include <QList>
#include <optional>

namespace postiq {

// One whole reply of a mail server: every line up to the one whose code is followed by a space
// (or by nothing).
struct ServerReply {
    int code = 0;            // 0 when the reply makes no sense as SMTP
    QList<QByteArray> lines; // without their line ends

    bool wellFormed() const { return code >= 200 && code <= 599; }
    // The first digit: 2 done, 3 go on, 4 try later, 5 never; 0 for nonsense.
    int replyClass() const { return wellFormed() ? code / 100 : 0; }
    // The lines joined by CR LF, as the logs and notices quote a reply.
    QByteArray text() const;
};

// Turns the bytes of a server into whole replies however they are split across reads; several
// replies in one read come out in turn. A line or a reply beyond the limits is nonsense, not a
// reason to hold memory without end.
class ReplyReader {
public:
    static constexpr qsizetype kMaxLine = 4096;
    static constexpr int kMaxLines = 200;

    void feed(const QByteArray& bytes) { pending_ += bytes; }
    // The next whole reply, or nullopt until more bytes come.
    std::optional<ServerReply> next();
    bool hasPartialReply() const { return !pending_.isEmpty() || !lines_.isEmpty(); }
    void clear();

private:
    QByteArray pending_;
    QList<QByteArray> lines_;
    int code_ = -1;
    bool nonsense_ = false;
};

// What the server offers in its reply to EHLO.
struct Extensions {
    bool size = false;
    bool eightBitMime = false;
    bool startTls = false;
    bool pipelining = false;
    QList<QByteArray> auth; // the mechanisms, upper-case

    static Extensions fromEhloReply(const ServerReply& reply);
};

} // namespace postiq
