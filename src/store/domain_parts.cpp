#include "store/domain_parts.h"

#include <QFile>
#include <algorithm>

#include "store/message.h"
#include "store/queue.h"
#include "store/queue_file_format.h"

namespace postiq {

namespace {
// What one copy step reads of the text.
constexpr qint64 kChunk = 256 * 1024;

QByteArray domainOf(const QByteArray& address)
{
    const qsizetype at = address.indexOf('@');
    return at < 0 ? QByteArray() : address.mid(at + 1).chopped(address.endsWith('>') ? 1 : 0);
}
} // namespace

QList<CMessage> EnvelopesByDomain(const CMessage& message)
{
    QList<QByteArray> domains;
    QList<CMessage> envelopes;
    for (int index = 1; index <= message.MRcptToCount(); ++index) {
        const QByteArray address = message.RcptTo(index);
        const QByteArray domain = domainOf(address);
        qsizetype known = domains.indexOf(domain);
        if (known < 0) {
            CMessage part = message; // ID, warning texts and ForSender are kept by MClear
            part.MClear();
            part.Essai = message.Essai;
            part.LastError = message.LastError;
            part.From = message.From;
            domains.append(domain);
            envelopes.append(part);
            known = domains.size() - 1;
        }
        envelopes[known].AddRcptTo(address);
    }
    if (envelopes.isEmpty()) {
        CMessage alone = message;
        alone.Data.clear();
        envelopes.append(alone);
    }
    return envelopes;
}

std::vector<std::unique_ptr<QueueWriter>> WriteDomainParts(
    const Queue& queue, QueueWriter& whole, const QList<CMessage>& envelopes,
    const std::function<QByteArray(const QByteArray& name)>& header)
{
    whole.finish();
    QFile source(whole.staged().staging);
    if (!source.open(QIODevice::ReadOnly))
        throw QueueFault(ErrFileAccess,
                         QStringLiteral("Cannot read '%1': %2").arg(source.fileName(), source.errorString()));
    qint64 textSize = 0;
    try {
        CMessage head = envelopes.first();
        textSize = ReadQueueRecordHead(source, head);
    } catch (const QueueFault&) {
        throw;
    } catch (const Fault& fault) {
        throw QueueFault(fault.number(), fault.description());
    }
    const qint64 textStart = source.pos();
    std::vector<std::unique_ptr<QueueWriter>> parts;
    for (qsizetype k = 0; k < envelopes.size(); ++k) {
        parts.push_back(queue.open(envelopes[k], '-' + QByteArray::number(k + 1)));
        QueueWriter& part = *parts.back();
        part.append(header(part.name()));
        source.seek(textStart);
        for (qint64 left = textSize; left > 0;) {
            const QByteArray chunk = source.read(std::min(left, kChunk));
            if (chunk.isEmpty())
                throw QueueFault(ErrPastEndOfFile,
                                 QStringLiteral("'%1' ends inside its text").arg(source.fileName()));
            part.append(chunk);
            left -= chunk.size();
        }
        part.finish();
    }
    whole.discard();
    return parts;
}

} // namespace postiq
