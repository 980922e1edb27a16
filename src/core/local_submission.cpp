#include "core/local_submission.h"

#include <cctype>

namespace postiq {

namespace {

// One header field: its name as written and its lines (the first and its continuations).
struct Field {
    QByteArray name;
    QByteArrayList lines;
    QByteArray value() const // unfolded, without the name
    {
        QByteArray text = lines.first().mid(lines.first().indexOf(':') + 1);
        for (qsizetype i = 1; i < lines.size(); ++i)
            text += ' ' + lines[i].trimmed();
        return text.trimmed();
    }
};

// "Name:" with a name of printable characters other than the colon: the start of a field.
bool startsField(const QByteArray& line, QByteArray* name)
{
    const qsizetype colon = line.indexOf(':');
    if (colon <= 0)
        return false;
    for (qsizetype i = 0; i < colon; ++i) {
        const unsigned char c = line[i];
        if (c <= ' ' || c >= 127)
            return false;
    }
    *name = line.left(colon);
    return true;
}

bool isContinuation(const QByteArray& line) { return !line.isEmpty() && (line[0] == ' ' || line[0] == '\t'); }

// The input's lines without their ends (a bare LF and CR LF alike), up to a lone dot unless told.
QByteArrayList inputLines(const QByteArray& input, bool dotEnds)
{
    QByteArrayList lines = input.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast(); // the final line end does not start another line
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (lines[i].endsWith('\r'))
            lines[i].chop(1);
        if (dotEnds && lines[i] == ".") {
            lines.resize(i);
            break;
        }
    }
    return lines;
}

// "<addr>" lower-cased as the SMTP side stores it; an address without a domain is one of this
// host's users. Empty when the text is no address.
QByteArray envelopeAddress(QByteArray text, const QByteArray& hostName)
{
    text = text.trimmed();
    if (text.startsWith('<') && text.endsWith('>'))
        text = text.mid(1, text.size() - 2).trimmed();
    if (!text.isEmpty() && !text.contains('@'))
        text += '@' + hostName;
    // One "@" between a local part and a domain, nothing that would break a line or an SMTP
    // command. A dot in the domain is not required: a host's own name may have none.
    const qsizetype at = text.indexOf('@');
    if (at <= 0 || at == text.size() - 1 || text.indexOf('@', at + 1) >= 0)
        return {};
    for (const char c : text) {
        if (static_cast<unsigned char>(c) <= ' ' || c == '<' || c == '>' || c == 127)
            return {};
    }
    return '<' + text.toLower() + '>';
}

QByteArray quotedName(const QByteArray& name)
{
    for (const char c : name) {
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == ' ' || c == '-' || c == '\''
              || static_cast<unsigned char>(c) >= 128))
            return '"' + QByteArray(name).replace('\\', "\\\\").replace('"', "\\\"") + '"';
    }
    return name;
}

} // namespace

QByteArrayList AddressesOf(const QByteArray& headerValue)
{
    QByteArrayList addresses;
    QByteArray current;
    QByteArray bracketed;
    int comment = 0;
    bool quoted = false;
    bool inBrackets = false;
    bool sawBrackets = false;
    const auto take = [&] {
        // "Name <address>" gives what is in brackets; a bare address is the last word.
        QByteArray address = sawBrackets ? bracketed.trimmed() : current.trimmed();
        if (!sawBrackets && address.contains(' '))
            address = address.mid(address.lastIndexOf(' ') + 1);
        if (!address.isEmpty())
            addresses.append(address);
        current.clear();
        bracketed.clear();
        sawBrackets = false;
    };
    for (qsizetype i = 0; i < headerValue.size(); ++i) {
        const char c = headerValue[i];
        if (quoted) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                quoted = false;
            continue;
        }
        if (comment > 0) {
            if (c == '\\')
                ++i;
            else if (c == '(')
                ++comment;
            else if (c == ')')
                --comment;
            continue;
        }
        if (inBrackets) {
            if (c == '>')
                inBrackets = false;
            else
                bracketed += c;
            continue;
        }
        switch (c) {
        case '"':
            quoted = true;
            break;
        case '(':
            comment = 1;
            break;
        case '<':
            inBrackets = true;
            sawBrackets = true;
            bracketed.clear();
            break;
        case ':': // "Group:" opens a group: what came before is its name
            current.clear();
            break;
        case ',':
        case ';':
            take();
            break;
        default:
            current += c;
        }
    }
    take();
    return addresses;
}

SubmissionProblem PrepareSubmission(const SubmissionRequest& request, Submission* submission, QString* error)
{
    const QByteArrayList lines = inputLines(request.input, request.dotEnds);

    // The header block: the fields at the top, up to the empty line (or the first line that is
    // no field: a message without a header starts its body at once).
    QList<Field> fields;
    qsizetype bodyStart = 0;
    QByteArray name;
    while (bodyStart < lines.size()) {
        const QByteArray& line = lines[bodyStart];
        if (startsField(line, &name)) {
            fields.append(Field{name, {line}});
        } else if (isContinuation(line) && !fields.isEmpty()) {
            fields.last().lines.append(line);
        } else {
            break;
        }
        ++bodyStart;
    }
    const bool blankSeparator = bodyStart < lines.size() && lines[bodyStart].isEmpty();
    const auto has = [&fields](const char* wanted) {
        for (const Field& field : fields) {
            if (field.name.compare(wanted, Qt::CaseInsensitive) == 0)
                return true;
        }
        return false;
    };

    // Envelope.
    QByteArray sender = request.sender.isEmpty() ? request.login : request.sender;
    if (sender.trimmed() == "<>") {
        submission->sender = "<>";
    } else {
        // "-f 'Name <addr>'" gives the address in brackets, as a header would.
        submission->sender = envelopeAddress(AddressesOf(sender).value(0, sender), request.hostName);
        if (submission->sender.isEmpty()) {
            *error = QStringLiteral("the sender '%1' is not a mail address").arg(QString::fromUtf8(sender));
            return SubmissionProblem::BadAddress;
        }
    }
    QByteArrayList wanted = request.recipients;
    if (request.recipientsFromHeaders) {
        for (const Field& field : fields) {
            for (const char* kind : {"To", "Cc", "Bcc"}) {
                if (field.name.compare(kind, Qt::CaseInsensitive) == 0)
                    wanted += AddressesOf(field.value());
            }
        }
    }
    submission->recipients.clear();
    for (const QByteArray& text : wanted) {
        // The command line may hold several addresses in one argument, separated by commas.
        for (const QByteArray& one : AddressesOf(text)) {
            const QByteArray address = envelopeAddress(one, request.hostName);
            if (address.isEmpty()) {
                *error = QStringLiteral("the recipient '%1' is not a mail address").arg(QString::fromUtf8(one));
                return SubmissionProblem::BadAddress;
            }
            if (!submission->recipients.contains(address))
                submission->recipients.append(address);
        }
    }
    if (submission->recipients.isEmpty()) {
        *error = request.recipientsFromHeaders ? QStringLiteral("no recipient: the header has no To, Cc or Bcc")
                                               : QStringLiteral("no recipient given");
        return SubmissionProblem::NoRecipient;
    }
    if (submission->recipients.size() > 255) {
        *error = QStringLiteral("more than 255 recipients");
        return SubmissionProblem::BadAddress;
    }

    // Text: Received first, the fields as written (but Bcc), the missing ones, then the body.
    QByteArrayList header{"Received: by " + request.hostName + " (Postiq) id " + request.id + "; " + request.date};
    for (const Field& field : fields) {
        if (field.name.compare("Bcc", Qt::CaseInsensitive) != 0)
            header += field.lines;
    }
    if (!has("From")) {
        const QByteArray bare = submission->sender == "<>" ? envelopeAddress(request.login, request.hostName)
                                                           : submission->sender;
        header += "From: " + (request.fullName.isEmpty() ? bare.mid(1, bare.size() - 2)
                                                         : quotedName(request.fullName) + ' ' + bare);
    }
    if (!has("Date"))
        header += "Date: " + request.date;
    if (!has("Message-ID"))
        header += "Message-ID: <" + request.messageId + '@' + request.hostName + '>';

    QByteArray data;
    const auto add = [&data](const QByteArray& line) {
        data += line + "\r\n";
    };
    for (const QByteArray& line : header)
        add(line);
    data += "\r\n";
    for (qsizetype i = bodyStart + (blankSeparator ? 1 : 0); i < lines.size(); ++i)
        add(lines[i]);
    submission->data = data;
    return SubmissionProblem::None;
}

} // namespace postiq
