#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <cstdint>
#include <functional>

#include "delivery/delivery_outcome.h"
#include "notify/notice.h"
#include "store/queue.h"

namespace postiq {

class CMessage;
class Logs;
class Settings;

// Everything the fate of a message depends on once a connection has ended.
struct DispositionInput {
    uint8_t slot = 0;
    QString file;           // the OutBox file
    // Its record as loaded, with or without its text: what is written back is only the fields
    // before the text, and notices copy the text from the file.
    CMessage* message = nullptr;
    QDateTime arrival;      // when the message was queued
    DeliveryOutcome outcome;
    bool moreHosts = false;     // the MX list has a host after this one
    bool clearRetryLeft = false; // TLS failed with this exchanger and it was not yet tried in clear
    QString route;          // the route of Routes.ini whose server this was; empty: none
    QString fallbackRoute;  // the next route of its chain, if any
};

// What the dispatcher does with the slot afterwards.
enum class NextStep { Release, NextHost, SameHostInClear };

// Turns an outcome into queue moves, notices and mail-log lines: the one place that decides
// what becomes of a message.
class Disposition {
public:
    Disposition(Logs& logs, const Settings& settings, const Queue& queue);

    NextStep decide(const DispositionInput& input);

    // What a message may cause: a notice goes to the sender of an ordinary message only.
    enum class Kind { Ordinary, Notice, NullSender };
    static Kind KindOf(const CMessage& message);

private:
    struct Facts;
    using Action = NextStep (Disposition::*)(Facts&);
    enum class Hosts { Any, TlsRetryLeft, Fallback, More, Last };
    enum class Kinds { Any, Ordinary, NoNotice };
    enum class Attempts { Any, Left, Spent };
    struct Row {
        DeliveryOutcome::Kind outcome;
        Hosts hosts;
        Kinds kind;
        Attempts attempts;
        Action action;
    };
    static const Row kRows[];
    static bool matches(const Row& row, const Facts& facts);

    // The actions of the table.
    NextStep retryInClear(Facts& facts);
    NextStep tryNextHost(Facts& facts);
    NextStep tryFallbackRoute(Facts& facts);
    NextStep deferWithNotice(Facts& facts);
    NextStep deferSilently(Facts& facts);
    NextStep giveUp(Facts& facts);
    NextStep giveUpToError(Facts& facts);
    NextStep bounceAll(Facts& facts);
    NextStep refusedToError(Facts& facts);
    NextStep loginRefusedWithNotice(Facts& facts);
    NextStep loginRefusedToError(Facts& facts);
    NextStep deferNoRoute(Facts& facts);
    NextStep bounceNoRoute(Facts& facts);
    NextStep noRouteToError(Facts& facts);
    NextStep settleRecipients(Facts& facts);

    // Shared steps.
    void defer(Facts& facts, bool notify);
    void connectionFailureToError(Facts& facts, bool attemptsSpent);
    void toError(Facts& facts, const CMessage& record, bool blankInErrorLine);
    void noticeThen(Facts& facts, NoticeKind kind, const QList<RecipientFate>& fates, const std::function<void()>& move);
    RecipientFate fate(const Facts& facts, const QByteArray& address, const ServerReply& reply, bool failed) const;
    QByteArray failureLine(const Facts& facts, const QByteArray& status, bool withAttempt) const;
    QByteArray refusalLine(const Facts& facts, const QByteArray& address, const ServerReply& reply) const;
    QByteArray denyTail(const Facts& facts) const;
    void noRouteLine(const Facts& facts);
    void mailLog(const QByteArray& text);

    Logs& logs_;
    const Settings& settings_;
    const Queue& queue_;
};

} // namespace postiq
