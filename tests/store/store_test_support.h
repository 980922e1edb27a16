#pragma once

#include <QByteArrayList>

#include "store/message.h"

namespace postiq::test {

// Every member of a record in file order, recipients from index 0, so that two records compare at once.
inline QByteArrayList Members(const CMessage& m)
{
    QByteArrayList members{m.ID, m.TxtEng, m.TxtFr, QByteArray::number(m.Essai), m.LastError,
                           QByteArray::number(m.ForSender), m.From, m.Data};
    for (int index = 0; index <= m.MRcptToCount(); ++index)
        members.append(m.RcptTo(index));
    return members;
}

} // namespace postiq::test
