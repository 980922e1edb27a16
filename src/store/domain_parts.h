#pragma once

#include <QByteArray>
#include <QList>
#include <functional>
#include <memory>
#include <vector>

namespace postiq {

class CMessage;
class Queue;
class QueueWriter;

// The envelope of each file a message makes, one per recipient domain in order of the domains'
// first appearance: the message's sender and record members with that domain's recipients, no
// text. A message with no recipient, or all in one domain, makes one.
QList<CMessage> EnvelopesByDomain(const CMessage& message);

// The files of a streamed message whose recipients are in several domains, once its text in
// `whole` is complete: one new OutBox file per envelope, named with "-1", "-2"..., each starting
// with what `header` gives for its own name, then the text of `whole` copied in chunks (never
// whole in memory). `whole` is discarded. The parts are finished but not durable: the caller
// commits their staged files and keeps the writers (which remove what they wrote when dropped)
// until then. Throws QueueFault; then no file of the message is left.
std::vector<std::unique_ptr<QueueWriter>> WriteDomainParts(
    const Queue& queue, QueueWriter& whole, const QList<CMessage>& envelopes,
    const std::function<QByteArray(const QByteArray& name)>& header);

} // namespace postiq
