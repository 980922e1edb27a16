#include <QRegularExpression>

#include "notify/notice.h"

namespace postiq {

namespace {

// "550 5.1.1 ..." or "451-4.7.1 ...": the reply code, then perhaps the enhanced code of the same
// class (a subject and a detail of up to three digits each).
const QRegularExpression kReply(QStringLiteral("^([245])\\d\\d(?:[ -]|$)(?:(\\d)\\.(\\d{1,3})\\.(\\d{1,3})(?=\\s|$))?"));

} // namespace

QByteArray EnhancedStatus(FailureCause cause, const QByteArray& reply, bool permanent)
{
    switch (cause) {
    case FailureCause::NoAnswer:
        return "4.4.1";
    case FailureCause::NoExchanger:
        return permanent ? "5.1.2" : "4.4.3";
    case FailureCause::Reply:
        break;
    }
    const QRegularExpressionMatch match = kReply.match(QString::fromLatin1(reply.trimmed()));
    if (!match.hasMatch() || match.captured(1) == u"2")
        return permanent ? "5.0.0" : "4.0.0";
    const QString replyClass = match.captured(1);
    if (match.captured(2) == replyClass)
        return (replyClass + u'.' + match.captured(3) + u'.' + match.captured(4)).toLatin1();
    return (replyClass + QStringLiteral(".0.0")).toLatin1();
}

} // namespace postiq
