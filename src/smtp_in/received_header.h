#pragma once

#include <QByteArray>

namespace postiq {

// Who handed a message over, as the Received header on top of its stored text records it.
struct ReceivedFrom {
    QByteArray heloName; // what the client called itself after HELO or EHLO
    QByteArray host;     // the peer's name, empty when unknown
    QByteArray ip;
    bool esmtp = false;  // greeted with EHLO
};

// "Received: from NAME ([IP])" CR LF TAB "by HOST (Postiq) with ESMTP id ID;" CR LF TAB DATE CR LF,
// folded as a receiving server writes it. Line ends and NULs in the client's words are dropped so
// that they cannot start a header of their own.
QByteArray ReceivedHeader(const ReceivedFrom& from, const QByteArray& localHostName, const QByteArray& id,
                          const QByteArray& date);

} // namespace postiq
