#include "delivery/disposition.h"

#include <QFile>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/socket_errors.h"
#include "log/dates.h"
#include "log/logs.h"
#include "store/message.h"

namespace postiq {

namespace {
const QByteArray kNotRoutable =
    "See log file at this time : The corresponding message is not routable => placed in the error directory";

QByteArray number(int n) { return QByteArray::number(n); }
// The OutBox file's queue name.
QByteArray nameOf(const DispositionInput& in) { return QFile::encodeName(in.file); }
// What follows a bounce that replaces the message: the OutBox file goes.
std::function<void()> removing(const Queue& queue, const DispositionInput& in)
{
    return [&queue, &in] { queue.remove(QueueFolder::OutBox, nameOf(in)); };
}
} // namespace

struct Disposition::Facts {
    const DispositionInput& in;
    CMessage& message;
    Kind kind;
    bool attemptsLeft;
    QByteArray reason;  // what the failure lines put in brackets
    QByteArray failure; // what LastError and the notices quote
    QByteArray head;    // " Postiq/smtpdistant[n]: ID"
};

using O = DeliveryOutcome;
using Self = Disposition;

// What becomes of a message, first matching row wins. "NoNotice" is a notice or a message with
// the null sender: neither ever causes a notice, so that no failure can breed mail. "Fallback":
// the route's server was not reached and the route has a fallback, tried within the same attempt;
// a server that answered with a refusal (a 5xx, a login refused or impossible) is never passed over.
// A login refused with a 5xx ends in Error at once: waiting does not mend a wrong password, and
// from Error the message can be sent again once the password is right.
const Disposition::Row Disposition::kRows[] = {
    // Outcome          Hosts               Kind              Attempts          Action
    {O::HostTemporary,  Hosts::TlsRetryLeft, Kinds::Any,      Attempts::Any,    &Self::retryInClear},
    {O::HostTemporary,  Hosts::Fallback,    Kinds::Any,       Attempts::Any,    &Self::tryFallbackRoute},
    {O::HostTemporary,  Hosts::More,        Kinds::Any,       Attempts::Any,    &Self::tryNextHost},
    {O::HostTemporary,  Hosts::Last,        Kinds::Ordinary,  Attempts::Left,   &Self::deferWithNotice},
    {O::HostTemporary,  Hosts::Last,        Kinds::NoNotice,  Attempts::Left,   &Self::deferSilently},
    {O::HostTemporary,  Hosts::Last,        Kinds::Ordinary,  Attempts::Spent,  &Self::giveUp},
    {O::HostTemporary,  Hosts::Last,        Kinds::NoNotice,  Attempts::Spent,  &Self::giveUpToError},
    {O::HostPermanent,  Hosts::Any,         Kinds::Ordinary,  Attempts::Any,    &Self::bounceAll},
    {O::HostPermanent,  Hosts::Any,         Kinds::NoNotice,  Attempts::Any,    &Self::refusedToError},
    {O::LoginRefused,   Hosts::Any,         Kinds::Ordinary,  Attempts::Any,    &Self::loginRefusedWithNotice},
    {O::LoginRefused,   Hosts::Any,         Kinds::NoNotice,  Attempts::Any,    &Self::loginRefusedToError},
    {O::NoRoute,        Hosts::Any,         Kinds::Any,       Attempts::Left,   &Self::deferNoRoute},
    {O::NoRoute,        Hosts::Any,         Kinds::Ordinary,  Attempts::Spent,  &Self::bounceNoRoute},
    {O::NoRoute,        Hosts::Any,         Kinds::NoNotice,  Attempts::Spent,  &Self::noRouteToError},
    {O::Transaction,    Hosts::Any,         Kinds::Any,       Attempts::Any,    &Self::settleRecipients},
};

Disposition::Disposition(Logs& logs, const Settings& settings, const Queue& queue)
    : logs_(logs), settings_(settings), queue_(queue)
{
}

Disposition::Kind Disposition::KindOf(const CMessage& message)
{
    if (message.ForSender)
        return Kind::Notice;
    const QByteArray from = message.From.trimmed();
    if (from.isEmpty() || from == "<>")
        return Kind::NullSender;
    return Kind::Ordinary;
}

bool Disposition::matches(const Row& row, const Facts& facts)
{
    const DispositionInput& in = facts.in;
    if (row.outcome != in.outcome.kind)
        return false;
    switch (row.hosts) {
    case Hosts::TlsRetryLeft:
        if (!(in.outcome.tlsFailed && in.clearRetryLeft))
            return false;
        break;
    case Hosts::Fallback:
        if (in.fallbackRoute.isEmpty() || in.outcome.errorNumber == ErrAuthFailed)
            return false;
        break;
    case Hosts::More:
        if (!in.moreHosts)
            return false;
        break;
    case Hosts::Last:
        if (in.moreHosts)
            return false;
        break;
    case Hosts::Any:
        break;
    }
    if (row.kind == Kinds::Ordinary && facts.kind != Kind::Ordinary)
        return false;
    if (row.kind == Kinds::NoNotice && facts.kind == Kind::Ordinary)
        return false;
    if (row.attempts == Attempts::Left && !facts.attemptsLeft)
        return false;
    if (row.attempts == Attempts::Spent && facts.attemptsLeft)
        return false;
    return true;
}

NextStep Disposition::decide(const DispositionInput& input)
{
    CMessage& message = *input.message;
    const DeliveryOutcome& outcome = input.outcome;
    Facts facts{input, message, KindOf(message), message.Essai <= settings_.ActiveSettings.MaxNbrAttempt, {}, {}, {}};
    facts.head = " Postiq/smtpdistant[" + number(input.slot) + "]: " + message.ID;
    if (!input.route.isEmpty())
        facts.head += " route=" + input.route.toUtf8();
    if (outcome.errorNumber != 0) {
        facts.reason = ReasonText(outcome.errorNumber);
        facts.failure = number(outcome.errorNumber) + ": " + outcome.description;
    } else if (outcome.reply.wellFormed()) {
        facts.reason = outcome.reply.text();
        facts.failure = outcome.reply.text();
    } else {
        facts.reason = outcome.description;
        facts.failure = outcome.description;
    }
    for (const Row& row : kRows) {
        if (matches(row, facts))
            return (this->*row.action)(facts);
    }
    return NextStep::Release;
}

// ---- the table's actions ----

NextStep Disposition::retryInClear(Facts& facts)
{
    mailLog(facts.head + " TLS handshake failed (" + facts.in.outcome.description + ") with " + facts.in.outcome.host
            + " [" + facts.in.outcome.ip + "], status=retrying without TLS");
    return NextStep::SameHostInClear;
}

// All hosts of one dispatch count as one attempt.
NextStep Disposition::tryNextHost(Facts& facts)
{
    mailLog(failureLine(facts, "trying other MX server, attempt=" + number(facts.message.Essai), false));
    return NextStep::NextHost;
}

NextStep Disposition::tryFallbackRoute(Facts& facts)
{
    mailLog(failureLine(facts, "route " + facts.in.route.toUtf8() + " could not be reached, trying route "
                                   + facts.in.fallbackRoute.toUtf8() + ", attempt=" + number(facts.message.Essai),
                        false));
    return NextStep::NextHost;
}

NextStep Disposition::deferWithNotice(Facts& facts)
{
    defer(facts, true);
    return NextStep::Release;
}

NextStep Disposition::deferSilently(Facts& facts)
{
    defer(facts, false);
    return NextStep::Release;
}

NextStep Disposition::giveUp(Facts& facts)
{
    CMessage& message = facts.message;
    mailLog(failureLine(facts, "error, return error to=" + message.From, true));
    const QByteArray detail = facts.in.outcome.errorNumber != 0
        ? number(facts.in.outcome.errorNumber) + ": " + facts.reason + " (" + facts.in.outcome.description + ")"
        : facts.failure;
    message.LastError = detail + "\r\n\r\nThis was the " + number(message.Essai) + "st attempt ...";
    QList<RecipientFate> fates;
    for (int i = 1; i <= message.MRcptToCount(); ++i) {
        RecipientFate one = fate(facts, message.RcptTo(i), facts.in.outcome.reply, true);
        one.diagnostic = detail;
        fates << one;
    }
    noticeThen(facts, NoticeKind::Bounce, fates, removing(queue_, facts.in));
    return NextStep::Release;
}

NextStep Disposition::giveUpToError(Facts& facts)
{
    connectionFailureToError(facts, true);
    return NextStep::Release;
}

NextStep Disposition::bounceAll(Facts& facts)
{
    CMessage& message = facts.message;
    const ServerReply& reply = facts.in.outcome.reply;
    message.LastError = reply.text();
    QList<RecipientFate> fates;
    for (int i = 1; i <= message.MRcptToCount(); ++i) {
        mailLog(refusalLine(facts, message.RcptTo(i), reply) + "return error to=" + message.From);
        fates << fate(facts, message.RcptTo(i), reply, true);
    }
    noticeThen(facts, NoticeKind::Bounce, fates, removing(queue_, facts.in));
    return NextStep::Release;
}

NextStep Disposition::refusedToError(Facts& facts)
{
    CMessage& message = facts.message;
    const ServerReply& reply = facts.in.outcome.reply;
    message.LastError = reply.text();
    for (int i = 1; i <= message.MRcptToCount(); ++i)
        mailLog(refusalLine(facts, message.RcptTo(i), reply) + denyTail(facts));
    toError(facts, message, true);
    return NextStep::Release;
}

// The message is kept in Error rather than removed, so that it can be sent again from there.
NextStep Disposition::loginRefusedWithNotice(Facts& facts)
{
    CMessage& message = facts.message;
    mailLog(failureLine(facts, "error, return error to=" + message.From, false));
    message.LastError = facts.failure;
    QList<RecipientFate> fates;
    for (int i = 1; i <= message.MRcptToCount(); ++i)
        fates << fate(facts, message.RcptTo(i), facts.in.outcome.reply, true);
    noticeThen(facts, NoticeKind::Bounce, fates, [&] { toError(facts, message, true); });
    return NextStep::Release;
}

NextStep Disposition::loginRefusedToError(Facts& facts)
{
    connectionFailureToError(facts, false);
    return NextStep::Release;
}

// A domain without mail host waits without a notice. Its line is written at every attempt, with
// the word it has always had, whatever follows.
void Disposition::noRouteLine(const Facts& facts)
{
    mailLog(" Postiq/smtpdistant: " + facts.message.ID + " " + facts.failure + " status=bounced");
}

NextStep Disposition::deferNoRoute(Facts& facts)
{
    noRouteLine(facts);
    facts.message.LastError = facts.failure;
    queue_.defer(nameOf(facts.in), &facts.message);
    return NextStep::Release;
}

NextStep Disposition::bounceNoRoute(Facts& facts)
{
    noRouteLine(facts);
    CMessage& message = facts.message;
    message.LastError = facts.failure;
    QList<RecipientFate> fates;
    for (int i = 1; i <= message.MRcptToCount(); ++i)
        fates << fate(facts, message.RcptTo(i), facts.in.outcome.reply, true);
    noticeThen(facts, NoticeKind::Bounce, fates, removing(queue_, facts.in));
    return NextStep::Release;
}

NextStep Disposition::noRouteToError(Facts& facts)
{
    noRouteLine(facts);
    facts.message.LastError = facts.failure;
    toError(facts, facts.message, true);
    return NextStep::Release;
}

// The end of a transaction: each recipient its own fate. The refused share one bounce, the
// deferred stay queued together, and the file goes when nobody is left in it.
NextStep Disposition::settleRecipients(Facts& facts)
{
    CMessage& message = facts.message;
    const DeliveryOutcome& outcome = facts.in.outcome;
    QList<QByteArray> deferred;
    QList<QByteArray> refused;
    QList<RecipientFate> refusedFates;
    QList<RecipientFate> deferredFates;
    QByteArray lastRefusal;
    for (const RecipientResult& result : outcome.recipients) {
        const QByteArray text = result.reply.text();
        if (result.verdict == RecipientResult::Accepted) {
            mailLog(facts.head + " to=" + result.address + ", relay=" + outcome.host + "[" + outcome.ip
                    + "], status=sent (" + text + ")");
        } else if (result.verdict == RecipientResult::Deferred && facts.attemptsLeft) {
            mailLog(facts.head + " to=" + result.address + ", relay=" + outcome.host + "[" + outcome.ip
                    + "], status=deferred (" + text + "), attempt=" + number(message.Essai));
            deferred << result.address;
            deferredFates << fate(facts, result.address, result.reply, false);
        } else {
            // Refused, or deferred once too often.
            const QByteArray tail = facts.kind == Kind::Ordinary ? "return error to=" + message.From : denyTail(facts);
            mailLog(refusalLine(facts, result.address, result.reply) + tail);
            refused << result.address;
            refusedFates << fate(facts, result.address, result.reply, true);
            lastRefusal = text;
        }
    }

    const auto only = [&message](const QList<QByteArray>& addresses, const QByteArray& error) {
        CMessage part = message;
        part.OneRcptTo();
        part.setRcptTo(1, addresses.value(0));
        for (qsizetype i = 1; i < addresses.size(); ++i)
            part.AddRcptTo(addresses[i]);
        part.LastError = error;
        return part;
    };
    if (!refused.isEmpty()) {
        if (facts.kind == Kind::Ordinary) {
            // Queued before anything else moves: a crash can repeat it, never lose it.
            noticeThen(facts, NoticeKind::Bounce, refusedFates, [] {});
        } else {
            // While some recipients stay deferred, the refused go to Error as a copy of their own.
            const CMessage part = only(refused, lastRefusal);
            if (deferred.isEmpty())
                queue_.moveToError(QueueFolder::OutBox, nameOf(facts.in), &part);
            else
                queue_.derive(QueueFolder::OutBox, nameOf(facts.in), QueueFolder::Error, part);
            logs_.ErrorLog(GMTDate(logs_.clock()) + " " + kNotRoutable);
            if (deferred.isEmpty())
                return NextStep::Release;
        }
    }
    if (!deferred.isEmpty()) {
        const CMessage part = only(deferred, deferredFates.value(0).diagnostic);
        const auto defer = [&] { queue_.defer(nameOf(facts.in), &part); };
        if (facts.kind == Kind::Ordinary)
            noticeThen(facts, NoticeKind::Delay, deferredFates, defer);
        else
            defer();
        return NextStep::Release;
    }
    queue_.removeDelivered(QueueFolder::OutBox, nameOf(facts.in)); // no copy of a sent message is kept
    return NextStep::Release;
}

// ---- shared steps ----

// The deferred copy's time is the deferral time that the next attempt counts from.
void Disposition::defer(Facts& facts, bool notify)
{
    CMessage& message = facts.message;
    mailLog(failureLine(facts, "deferred, attempt=" + number(message.Essai), false));
    message.LastError = facts.failure;
    const auto move = [&] { queue_.defer(nameOf(facts.in), &message); };
    if (!notify) {
        move();
        return;
    }
    QList<RecipientFate> fates;
    for (int i = 1; i <= message.MRcptToCount(); ++i)
        fates << fate(facts, message.RcptTo(i), facts.in.outcome.reply, false);
    noticeThen(facts, NoticeKind::Delay, fates, move);
}

// A message that may cause no notice, to Error after a failed connection. One that ran out of
// attempts keeps the lines it has always had: the ordinal in the mail log, no blank in error.txt.
void Disposition::connectionFailureToError(Facts& facts, bool attemptsSpent)
{
    mailLog(failureLine(facts, "error, " + denyTail(facts), attemptsSpent));
    facts.message.LastError = facts.failure;
    toError(facts, facts.message, !attemptsSpent);
}

void Disposition::toError(Facts& facts, const CMessage& record, bool blankInErrorLine)
{
    queue_.moveToError(QueueFolder::OutBox, nameOf(facts.in), &record);
    // The entry of a notice that ran out of attempts has no blank after the stamp.
    logs_.ErrorLog(GMTDate(logs_.clock()) + (blankInErrorLine ? " " : "") + kNotRoutable);
}

// The notice is queued first; when the move that goes with it fails, the notice goes again, so
// that the next attempt does not send it twice.
void Disposition::noticeThen(Facts& facts, NoticeKind kind, const QList<RecipientFate>& fates,
                             const std::function<void()>& move)
{
    NoticeRequest request;
    request.kind = kind;
    request.original = &facts.message;
    request.arrival = facts.in.arrival;
    request.recipients = fates;
    const QByteArray notice =
        QueueNotice(queue_, logs_, settings_, logs_.clock(), request, QueueFolder::OutBox, nameOf(facts.in));
    UndoingOnFault(move, [&] { queue_.remove(QueueFolder::OutBox, notice); });
}

// What the notice says of one recipient. Only a server that answered is named as the remote one.
RecipientFate Disposition::fate(const Facts& facts, const QByteArray& address, const ServerReply& reply,
                                bool failed) const
{
    // A refused login carries its reply, yet the notice names the failure as it always has.
    const bool answered = reply.wellFormed() && facts.in.outcome.errorNumber == 0;
    FailureCause cause = answered ? FailureCause::Reply : FailureCause::NoAnswer;
    if (facts.in.outcome.kind == DeliveryOutcome::NoRoute)
        cause = FailureCause::NoExchanger;
    RecipientFate one;
    one.address = address;
    one.status = EnhancedStatus(cause, answered ? reply.text() : QByteArray(), failed);
    one.remoteMta = answered ? facts.in.outcome.host : QByteArray();
    one.diagnostic = answered ? reply.text() : facts.failure;
    return one;
}

QByteArray Disposition::failureLine(const Facts& facts, const QByteArray& status, bool withOrdinal) const
{
    const DeliveryOutcome& outcome = facts.in.outcome;
    return facts.head + (withOrdinal ? " " + number(facts.message.Essai) + "st" : QByteArray()) + " connection failed ("
        + facts.reason + ") for " + outcome.host + " [" + outcome.ip + "], status=" + status;
}

QByteArray Disposition::refusalLine(const Facts& facts, const QByteArray& address, const ServerReply& reply) const
{
    return facts.head + " Error " + number(reply.code) + " (" + reply.text() + "), error for=" + address
        + " status=error, ";
}

QByteArray Disposition::denyTail(const Facts& facts) const
{
    if (facts.kind == Kind::NullSender)
        return "not return error because its sender is <>: deny loop";
    return "not return error because it's already a return-error-mail: deny loop";
}

void Disposition::mailLog(const QByteArray& text) { logs_.MailLog(GMTDate(logs_.clock()) + text); }

} // namespace postiq
