#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

#include "log/logs.h"
#include "platform/clock.h"
#include "platform/desktop.h"

namespace postiq::test {

// Thrown where the program would end, so that a test can see that it did and why.
struct ProgramEnded {
    int status;
};

// Records every message box; questions get the answer set in `answer`.
class RecordingDesktop : public Desktop {
public:
    struct Box {
        QString title;
        QString text;
        Icon icon;
    };
    QList<Box> boxes;
    QList<Box> notices;
    QStringList diagnostics;
    bool answer = false;

    void messageBox(const QString& title, const QString& text, Icon icon) override
    {
        boxes.append({title, text, icon});
    }
    bool askYesNo(const QString& title, const QString& text) override
    {
        boxes.append({title, text, Icon::Question});
        return answer;
    }
    void notice(const QString& title, const QString& text) override { notices.append({title, text, Icon::Information}); }
    void diagnostic(const QString& text) override { diagnostics.append(text); }
    [[noreturn]] void endProgram(int status) override { throw ProgramEnded{status}; }
};

class FixedClock : public Clock {
public:
    QDateTime time = QDateTime(QDate(2004, 2, 5), QTime(9, 5, 7));
    QDateTime now() const override { return time; }
};

class FixedDebugSwitch : public DebugSwitch {
public:
    bool loaded = true;
    bool debug = false;
    bool configLoaded() const override { return loaded; }
    bool debugMode() const override { return debug; }
};

// A temporary program folder with logs that write into it.
struct LogBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    FixedDebugSwitch debug;
    Logs logs{dir.path(), debug, desktop, clock};

    QString path(const QString& name) const { return dir.path() + '/' + name; }
};

// A TCP port that nothing listens on right now, within the 16-bit signed range of ListenPort.
quint16 freeListenPort();

// Postiq.ini as written with no setting overridden: the header and the empty sections.
inline const QByteArray kHeaderOnlyIni =
    "# Fichier de configuration de Postiq\r\n"
    "# Placer un dièse '#' devant une ligne pour qu'elle devienne un commentaire\r\n"
    "\r\n"
    "# Version de Postiq pour ce fichier de configuration (dernière écriture logicielle)\r\n"
    "# Postiq Version 3.0\r\n"
    "\r\n"
    "<Global>\r\n"
    "</Global>\r\n"
    "\r\n"
    "<Registry>\r\n"
    "</Registry>\r\n";

// Whole contents of a file, or an empty array when it is missing.
QByteArray readFile(const QString& path);
// The complete lines (ended by CR LF) of a log file that contain `part`, without their CR LF.
QList<QByteArray> logLines(const QString& path, const QByteArray& part = {});
void writeFile(const QString& path, const QByteArray& bytes);

} // namespace postiq::test
