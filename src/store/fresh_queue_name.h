#pragma once

#include <QByteArray>
#include <functional>

namespace postiq {

class Logs;

// A queue file name, RandomFileGet + suffix, that no file in OutBox, Deferred or Error of the
// program folder holds yet: a new message never replaces a queued one. A queue folder that cannot
// be made or read, or no free name after many draws, throws a Fault (QueueFault) for the caller
// to answer per message.
QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix = {});

// The same with the random part drawn by `draw`, so that clashes can be forced.
QByteArray FreshQueueName(Logs& logs, const QByteArray& suffix, const std::function<QByteArray()>& draw);

// The random part itself (what RandomFileGet returns), for callers without logs.
QByteArray DrawQueueName();

} // namespace postiq
