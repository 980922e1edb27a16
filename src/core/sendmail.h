#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>
#include <QStringList>

namespace postiq {

// Exit statuses of the sendmail interface, from sysexits.
enum SendmailExit : int {
    SendmailQueued = 0,
    SendmailUsage = 64,       // EX_USAGE: options not understood
    SendmailBadMessage = 65,  // EX_DATAERR: no recipient, an address that is none, too big
    SendmailCannotCreate = 73, // EX_CANTCREAT: the queue cannot be written
    SendmailTemporary = 75,   // EX_TEMPFAIL: a full disk; try again later
};

struct SendmailOptions {
    QString folder;                     // --folder
    bool recipientsFromHeaders = false; // -t
    bool dotEnds = true;                // cleared by -i and -oi
    QByteArray sender;                  // -f, -r
    QByteArray fullName;                // -F
    bool verbose = false;               // -v: print the queue IDs
    bool listQueue = false;             // -bp: as mailq
    QByteArrayList recipients;
    QString error;                      // set when the options cannot be understood
};

// The options of the common sendmail interface; harmless ones are accepted and ignored.
SendmailOptions ParseSendmailOptions(const QStringList& arguments);

// Queues the message on standard input in the OutBox of the program folder (see MailFolder) and
// tells a running relay to send it; returns a SendmailExit status. `folder` is a --folder given
// before --sendmail.
int RunSendmail(int argc, char** argv, const QStringList& arguments, const QString& folder);

} // namespace postiq
