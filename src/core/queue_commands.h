#pragma once

#include <QByteArray>
#include <QString>

namespace postiq {

// One queue command of the command line.
struct QueueCommand {
    QByteArray verb;     // "queue", "show", "retry" or "delete"
    QByteArray argument; // the message ID ("all" for retry); empty for queue
    bool json = false;   // queue: one JSON document instead of the table
    QString folder;      // --folder
};

// Carries the command out on the program folder (see MailFolder): through the running relay's
// control channel where the relay must act (retry, delete), on the files themselves when none
// runs. Exit status 0 when done or when there was nothing to do, 1 when refused.
int RunQueueCommand(int argc, char** argv, const QueueCommand& command);

} // namespace postiq
