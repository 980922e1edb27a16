#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>

#include "store/message.h"

namespace postiq {

class Clock;
class Logs;
class Settings;

// What a notice tells the sender: every recipient refused for good (a bounce), or still waiting
// for another attempt (a delay notice).
enum class NoticeKind { Bounce, Delay };

// The fate of one recipient, as the status part of the notice reports it.
struct RecipientFate {
    QByteArray address;    // as queued, "<c@d.example>"
    QByteArray status;     // enhanced status code: "5.1.1", "4.4.1", ...
    QByteArray remoteMta;  // the server that answered; empty when none did
    QByteArray diagnostic; // that server's reply, or what went wrong ("10061: connection refused")
};

struct NoticeRequest {
    NoticeKind kind = NoticeKind::Bounce;
    const CMessage* original = nullptr; // the message the notice is about, as queued
    QDateTime arrival;                  // when that message was queued
    QList<RecipientFate> recipients;    // the recipients this notice is about, one block each
};

// The notice as a record ready to be queued: envelope sender "<>", the original's sender as its
// one recipient, ForSender set, no attempt yet, the warning texts of queue files. Its ID is left
// empty: the queue names it.
CMessage BuildNotice(Logs& logs, const Settings& settings, const Clock& clock, const NoticeRequest& request);

} // namespace postiq
