#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <gtest/gtest.h>

// Texts in failure messages as text.
inline void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace postiq::test {

// Reads a message as a receiving system would, with Python's email package, and tells what it
// found as JSON: every defect of every part and header, the report's parts, the status blocks,
// the date's zone and what came back of the original.
inline const char kMailReader[] = R"py(
import email, email.policy, email.utils, json, sys
raw = open(sys.argv[1], 'rb').read()
msg = email.message_from_bytes(raw, policy=email.policy.default)
defects = []
for part in msg.walk():
    defects += [type(d).__name__ for d in part.defects]
    for name, value in part.items():
        defects += [name + ': ' + type(d).__name__ for d in getattr(value, 'defects', ())]
parts = msg.get_payload() if msg.is_multipart() else []
raw_headers = dict(msg.raw_items())
out = {
    'defects': defects,
    'type': msg.get_content_type(),
    'reportType': msg.get_param('report-type'),
    'boundary': msg.get_boundary(),
    'messageId': str(msg['Message-ID']),
    'autoSubmitted': str(msg['Auto-Submitted']),
    'from': raw_headers.get('From'),
    'to': raw_headers.get('To'),
    'subject': str(msg['Subject']),
    'zoneSeconds': email.utils.parsedate_to_datetime(str(msg['Date'])).utcoffset().total_seconds(),
    'parts': [p.get_content_type() for p in parts],
    'text': parts[0].get_payload(decode=True).decode('ascii') if parts else '',
    'status': [],
}
for part in parts:
    kind = part.get_content_type()
    if kind == 'message/delivery-status':
        out['status'] = [dict(block.items()) for block in part.get_payload()]
    elif kind == 'message/rfc822':
        inner = part.get_payload(0)
        out['returnedSubject'] = str(inner['Subject'])
        out['returnedBody'] = inner.get_payload(decode=True).decode('latin-1')
    elif kind == 'text/rfc822-headers':
        out['returnedHeader'] = part.get_payload(decode=True).decode('latin-1')
arrival = out['status'][0].get('Arrival-Date') if out['status'] else None
out['arrivalZoneSeconds'] = email.utils.parsedate_to_datetime(arrival).utcoffset().total_seconds() if arrival else None
print(json.dumps(out))
)py";

// The reader's findings on `text`; an empty object (and a failure) when it could not run.
inline QJsonObject ReadAsMailReader(const QByteArray& text)
{
    QTemporaryFile file;
    if (!file.open()) {
        ADD_FAILURE() << "no temporary file";
        return {};
    }
    file.write(text);
    file.flush();
    QProcess python;
    python.start(QStringLiteral("python3"), {QStringLiteral("-c"), QString::fromLatin1(kMailReader), file.fileName()});
    if (!python.waitForFinished(30000) || python.exitCode() != 0) {
        ADD_FAILURE() << "python3 failed: " << python.readAllStandardError().toStdString();
        return {};
    }
    return QJsonDocument::fromJson(python.readAllStandardOutput()).object();
}

inline bool HavePython() { return !QStandardPaths::findExecutable(QStringLiteral("python3")).isEmpty(); }

} // namespace postiq::test
