#include "notify/queued_notice.h"

#include <QFileInfo>

#include "log/logs.h"

namespace postiq {

namespace {

// "550 ..." or "451-...": a server's reply rather than a socket error ("10061: ...").
bool isReply(const QByteArray& text)
{
    const auto digit = [&](int i) { return text.size() > i && text[i] >= '0' && text[i] <= '9'; };
    return (text.startsWith('4') || text.startsWith('5')) && digit(1) && digit(2)
        && (text.size() == 3 || text[3] == ' ' || text[3] == '-');
}

} // namespace

CMessage NoticeAboutQueueFile(Logs& logs, const Settings& settings, NoticeKind kind, const QString& path)
{
    const QFileInfo file(path);
    if (!file.isFile())
        throw Fault(ErrFileNotFound, QStringLiteral("The message '%1' is missing").arg(path));
    CMessage message(logs);
    message.MLoad(path);

    NoticeRequest request;
    request.kind = kind;
    request.original = &message;
    request.arrival = file.birthTime().isValid() ? file.birthTime() : file.lastModified();
    // A record keeps only the last error: an SMTP reply, or a socket error that no server sent.
    const FailureCause cause = isReply(message.LastError) ? FailureCause::Reply : FailureCause::NoAnswer;
    const QByteArray status = EnhancedStatus(cause, message.LastError, kind == NoticeKind::Bounce);
    for (int index = 1; index <= message.MRcptToCount(); ++index)
        request.recipients.append({message.RcptTo(index), status, QByteArray(), message.LastError});
    CMessage notice = BuildNotice(logs, settings, logs.clock(), request);
    notice.ID = message.ID;
    notice.LastError = message.LastError;
    return notice;
}

} // namespace postiq
