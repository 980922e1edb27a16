#include "store/address.h"

#include <QList>

#include "log/logs.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"

namespace postiq {

bool CheckEmail(const QByteArray& address)
{
    // Too short to lose a first and a last character: not an address at all.
    if (address.size() < 2)
        return false;
    // A line break or NUL would let the address smuggle lines into a later dialogue or header.
    for (const char forbidden : {'\r', '\n', '\0'}) {
        if (address.contains(forbidden))
            return false;
    }
    const QByteArray inner = address.mid(1, address.size() - 2);
    QByteArray bare = address;
    bare.replace('<', QByteArray()).replace('>', QByteArray());
    // Equal only when the two ends were the brackets and no other bracket is inside.
    if (inner != bare)
        return false;
    const QList<QByteArray> pieces = inner.split('@');
    if (pieces.size() != 2)
        return false;
    return pieces[1].split('.').size() >= 2;
}

QByteArray DomainOf(const QByteArray& address)
{
    const QList<QByteArray> pieces = address.split('@');
    if (pieces.size() < 2)
        throw Fault(ErrOutOfRange, QStringLiteral("The address '%1' has no domain").arg(QString::fromUtf8(address)));
    // The second piece still ends with the closing bracket; with a second "@" it is the text
    // between the two, as the address is taken apart the same way everywhere.
    const QByteArray& tail = pieces[1];
    if (tail.isEmpty())
        throw Fault(ErrInvalidCall,
                    QStringLiteral("The address '%1' ends at its \"@\"").arg(QString::fromUtf8(address)));
    return tail.chopped(1);
}

void ParseRcptTo(Logs& logs, const CMessage& message, const QString& outBoxFolder,
                 QList<StagedFile>* staged, const std::function<QByteArray(const QByteArray& id)>& header)
{
    // The record refuses more than 255 recipients, so there are never more domains either.
    const int count = message.MRcptToCount();
    QList<QByteArray> recipientDomains{QByteArray()}; // by recipient index; 0 unused
    QList<QByteArray> domains;                        // in order of first appearance
    for (int index = 1; index <= count; ++index) {
        const QByteArray domain = DomainOf(message.RcptTo(index));
        recipientDomains.append(domain);
        if (!domains.contains(domain))
            domains.append(domain);
    }

    CMessage work(logs);
    for (int k = 1; k <= domains.size(); ++k) {
        work.MClear();
        work.TxtFr = message.TxtFr;
        work.TxtEng = message.TxtEng;
        work.From = message.From;
        work.Essai = message.Essai;
        work.ForSender = message.ForSender;
        work.LastError = message.LastError;
        work.Data = message.Data;
        for (int index = 1; index <= count; ++index) {
            if (recipientDomains[index] == domains[k - 1])
                work.AddRcptTo(message.RcptTo(index));
        }
        work.ID = FreshQueueName(logs, '-' + QByteArray::number(k));
        if (header)
            work.Data = header(work.ID) + message.Data;
        const QString path = outBoxFolder + '/' + QString::fromLatin1(work.ID);
        if (staged)
            staged->append(work.MStage(path));
        else
            work.MSave(path);
    }
}

} // namespace postiq
