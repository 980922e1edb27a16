#include "smtp_in/envelope_commands.h"

#include <algorithm>

namespace postiq {

namespace {
// The piece that follows the first `separator`, up to the next one, as a split would give it;
// empty when the separator is missing.
QByteArray pieceAfter(const QByteArray& text, const QByteArray& separator)
{
    const qsizetype start = text.indexOf(separator);
    if (start < 0)
        return {};
    const QByteArray rest = text.mid(start + separator.size());
    const qsizetype next = rest.indexOf(separator);
    return next < 0 ? rest : rest.left(next);
}

// Trims spaces only: other blanks belong to the text.
QByteArray trimSpaces(const QByteArray& text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin] == ' ')
        ++begin;
    while (end > begin && text[end - 1] == ' ')
        --end;
    return text.mid(begin, end - begin);
}

bool allDigits(const QByteArray& text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Whether a number of any length of digits is no larger than the limit.
bool withinLimit(const QByteArray& digits, qint64 limit)
{
    qsizetype first = 0;
    while (first < digits.size() - 1 && digits[first] == '0')
        ++first;
    const QByteArray significant = digits.mid(first);
    return significant.size() <= 18 && significant.toLongLong() <= limit;
}
} // namespace

MailFrom ParseMailFrom(const QByteArray& line)
{
    const QByteArray raw = pieceAfter(line, "mail from:");
    qsizetype begin = 0;
    while (begin < raw.size() && raw[begin] == ' ')
        ++begin;
    // A bracketed path ends at its ">"; a bare one at the first space.
    qsizetype end = raw.size();
    if (begin < raw.size() && raw[begin] == '<') {
        const qsizetype close = raw.indexOf('>', begin);
        if (close >= 0)
            end = close + 1;
    } else if (const qsizetype space = raw.indexOf(' ', begin); space >= 0) {
        end = space;
    }
    MailFrom mail;
    mail.echo = raw.left(end);
    mail.address = trimSpaces(mail.echo);
    for (const QByteArray& parameter : raw.mid(end).split(' ')) {
        if (!parameter.isEmpty())
            mail.parameters.append(parameter);
    }
    return mail;
}

QByteArray ParseRcptToAddress(const QByteArray& line) { return trimSpaces(pieceAfter(line, "rcpt to:")); }

MailParameters CheckMailParameters(const QList<QByteArray>& parameters, qint64 sizeLimit)
{
    for (const QByteArray& parameter : parameters) {
        if (parameter.startsWith("size=")) {
            const QByteArray value = parameter.mid(5);
            if (!allDigits(value))
                return MailParameters::Unsupported;
            if (!withinLimit(value, sizeLimit))
                return MailParameters::TooLarge;
        } else if (parameter != "body=8bitmime" && parameter != "body=7bit") {
            return MailParameters::Unsupported;
        }
    }
    return MailParameters::Accepted;
}

} // namespace postiq
