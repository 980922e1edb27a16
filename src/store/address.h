#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <functional>

#include "platform/durable_file.h"

namespace postiq {

class CMessage;
class Logs;

// Whether a MAIL FROM or RCPT TO argument (lower-cased, trimmed, brackets kept) is acceptable.
// An address holding CR, LF or NUL never is.
bool CheckEmail(const QByteArray& address);

// The part between "@" and the closing ">", case kept. An address without "@" throws Fault.
QByteArray DomainOf(const QByteArray& address);

// Writes a message with several recipients into OutBox as one queue file per recipient domain,
// in order of the domains' first appearance, named FreshQueueName with the suffix "-" + k.
// With `staged`, the files are only staged (CMessage::MStage) and listed there for one commit.
// With `header`, each file's text starts with what it gives for that file's name. A failure (an
// address without domain, a full disk) throws Fault; files already staged are left in `staged`
// for the caller to discard.
void ParseRcptTo(Logs& logs, const CMessage& message, const QString& outBoxFolder,
                 QList<StagedFile>* staged = nullptr,
                 const std::function<QByteArray(const QByteArray& id)>& header = {});

} // namespace postiq
