#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>

#include "core/control_channel.h"

namespace postiq {

// Sends one command to the relay running on `folder` and waits for its answer in this short-lived
// process's event loop (a QCoreApplication must exist; nothing else may be running in it). The
// system relay's channel, in /run/postiq, is tried as well for the system folder.
ControlRequest::Outcome AskRunningRelay(const QString& folder, const QByteArray& command,
                                        std::chrono::milliseconds timeout, QString* text);

} // namespace postiq
