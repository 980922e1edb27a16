#pragma once

#include <QByteArray>
#include <QList>

#include "delivery/reply_reader.h"

namespace postiq {

// What the server said of one recipient in a transaction that reached its end.
struct RecipientResult {
    enum Verdict { Accepted, Refused, Deferred };
    QByteArray address;
    Verdict verdict = Deferred;
    ServerReply reply; // the reply to its RCPT, or the final reply for an accepted one
};

// How a connection to one mail host ended: the one thing an outbound session hands the
// dispatcher. The dispatcher alone decides what becomes of the message.
struct DeliveryOutcome {
    enum Kind {
        Transaction,   // the dialogue reached its end: one result per recipient
        HostTemporary, // this host failed for now (no connection, 4xx, nonsense, time-out)
        HostPermanent, // this host refused the message for every recipient (5xx)
        LoginRefused,  // this host refused the login with a 5xx: an answer that waiting does not change
        NoRoute,       // the domain has no mail host
        NotAttempted,  // a reused connection ended before this message's transaction began
        Unreadable,    // the queue file could not be read whole: nothing of it was accepted
    };
    Kind kind = HostTemporary;
    QList<RecipientResult> recipients; // Transaction only
    ServerReply reply;                 // the reply that decided, when one did
    int errorNumber = 0;               // a failure without a reply: its number ...
    QByteArray description;            // ... and the socket layer's words
    bool tlsFailed = false;            // the STARTTLS handshake with this host failed
    QByteArray host;                   // the server as the logs name it
    QByteArray ip;                     // and its address, when one was found

    bool answered() const { return reply.wellFormed(); }
};

} // namespace postiq
