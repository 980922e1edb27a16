#pragma once

#include <QByteArray>
#include <QList>

namespace postiq {

// A MAIL FROM line taken apart: the address with the text that leads to it, and the parameters
// that follow it.
struct MailFrom {
    QByteArray echo;    // from after "mail from:" to the end of the address, leading spaces kept
    QByteArray address; // the echo without its spaces: what the check and From see
    QList<QByteArray> parameters;
};

// `line` is the command line, lower-cased, without its CR LF.
MailFrom ParseMailFrom(const QByteArray& line);

// The address of a RCPT TO line (lower-cased, without its CR LF): what follows "rcpt to:",
// without its spaces.
QByteArray ParseRcptToAddress(const QByteArray& line);

enum class MailParameters { Accepted, TooLarge, Unsupported };

// SIZE= (digits, at most `sizeLimit`) and BODY=7BIT or BODY=8BITMIME are known; anything else is
// not. Parameters are lower-cased like the line.
MailParameters CheckMailParameters(const QList<QByteArray>& parameters, qint64 sizeLimit);

} // namespace postiq
