#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>

#include "store/message.h"
#include "store/queue.h"

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
// The text is a delivery-status report (multipart/report) that mail readers and filters take for
// what it is: dated in the real zone, its own Message-ID and boundary, "Auto-Submitted", a status
// block per recipient, and the whole message (a bounce) or its header (a delay notice).
CMessage BuildNotice(Logs& logs, const Settings& settings, const Clock& clock, const NoticeRequest& request);

// The same notice written straight into OutBox, its text copied from the queued original (`name`
// in `folder`) a chunk at a time, so that a returned message of any size costs a chunk of memory;
// the request's original gives only the fields before the text. Durable when it returns; gives
// the notice's name. A fault (the original unreadable, a full disk) throws QueueFault and leaves
// no notice behind.
QByteArray QueueNotice(const Queue& queue, Logs& logs, const Settings& settings, const Clock& clock,
                       const NoticeRequest& request, QueueFolder folder, const QByteArray& name);

// Why a recipient failed, as far as its Status field can tell.
enum class FailureCause {
    Reply,       // a server answered with the reply given
    NoAnswer,    // no server could be reached, or one stopped answering
    NoExchanger, // the domain has no mail exchanger
};

// The enhanced status code of a recipient's fate: for a reply, its own "N.N.N" when one follows
// the reply code and agrees with its class, else "5.0.0" or "4.0.0" by the code's class (by
// `permanent` when the text holds no code); "4.4.1" for no answer; "5.1.2" (permanent) or "4.4.3"
// for a domain without exchangers.
QByteArray EnhancedStatus(FailureCause cause, const QByteArray& reply, bool permanent);

} // namespace postiq
