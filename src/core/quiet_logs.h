#pragma once

#include <QString>

#include "log/logs.h"
#include "platform/clock.h"
#include "platform/desktop.h"

namespace postiq {

// The logs of a program folder for a short command that works on its queue beside the relay (the
// sendmail interface, the queue commands): the debug log is the relay's and stays closed.
class QuietLogs {
public:
    explicit QuietLogs(const QString& folder) : logs(folder, debug_, desktop_, clock) {}

    const SystemClock clock;

private:
    struct NoDebug : DebugSwitch {
        bool configLoaded() const override { return true; }
        bool debugMode() const override { return false; }
    };
    NoDebug debug_;
    HeadlessDesktop desktop_;

public:
    Logs logs;
};

} // namespace postiq
