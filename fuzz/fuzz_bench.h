#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QTemporaryDir>

#include "log/logs.h"
#include "platform/clock.h"
#include "platform/desktop.h"

namespace postiq::fuzz {

// What a fatal report throws instead of ending the fuzzer: a refused input is a result, not a crash.
struct ProgramEnded {
    int status;
};

// A desktop that keeps nothing, so that a million inputs hold no more memory than one.
class QuietDesktop : public Desktop {
public:
    void messageBox(const QString&, const QString&, Icon) override {}
    bool askYesNo(const QString&, const QString&) override { return false; }
    void notice(const QString&, const QString&) override {}
    [[noreturn]] void endProgram(int status) override { throw ProgramEnded{status}; }
};

class StillClock : public Clock {
public:
    QDateTime now() const override { return QDateTime(QDate(2004, 2, 5), QTime(9, 5, 7)); }
};

class LogsOff : public DebugSwitch {
public:
    bool configLoaded() const override { return true; }
    bool debugMode() const override { return false; }
};

// A program folder for the whole run, with logs that write into it.
struct FuzzBench {
    QTemporaryDir dir;
    QuietDesktop desktop;
    StillClock clock;
    LogsOff debug;
    Logs logs{dir.path(), debug, desktop, clock};

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    // Replaces a file of the folder with `bytes`.
    void put(const QString& name, const QByteArray& bytes) const;
    // Empties the logs now and then, so that a long run does not fill the disk.
    void trimLogs(int every = 1000);

private:
    int runs_ = 0;
};

// One bench per fuzz program, made on first use.
FuzzBench& Bench();

} // namespace postiq::fuzz
