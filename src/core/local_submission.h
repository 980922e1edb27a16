#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

namespace postiq {

// A message handed over on standard input by a program that calls sendmail, and what it asked for.
struct SubmissionRequest {
    QByteArray input;                   // the bytes read, line ends as they came
    bool dotEnds = true;                // without -i: a line holding a lone dot ends the message
    bool recipientsFromHeaders = false; // -t
    QByteArrayList recipients;          // from the command line
    QByteArray sender;                  // -f; empty: login@host
    QByteArray fullName;                // -F
    QByteArray login;
    QByteArray hostName;
    QByteArray date;                    // the Date header's text, now
    QByteArray id;                      // the queue ID, named in the Received field
    QByteArray messageId;               // the Message-ID's left part, unique over time
};

// What is queued, as the SMTP side would store it: envelope addresses lower-cased in angle
// brackets, the text with CR LF line ends (never dot-stuffed: the queue holds the message itself),
// its header completed.
struct Submission {
    QByteArray sender;
    QByteArrayList recipients;
    QByteArray data;
};

enum class SubmissionProblem {
    None,
    NoRecipient, // neither the command line nor (with -t) the header names one
    BadAddress,  // a sender or recipient that is no mail address
};

// Prepares the message: the header block read (the input may have none, as a cron job's line),
// recipients taken from To, Cc and Bcc with -t, Bcc fields removed, a Received field put first and
// From, Date and Message-ID added when missing. On a problem, *error says what it was.
SubmissionProblem PrepareSubmission(const SubmissionRequest& request, Submission* submission, QString* error);

// The addresses of an address-list header value ("A <a@x>, b@y (Bee), Group: c@z;"), as written.
QByteArrayList AddressesOf(const QByteArray& headerValue);

} // namespace postiq
