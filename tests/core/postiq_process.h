#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>

#include "support/fakes.h"

namespace postiq::test {

// The real program run headless on a program folder, with its registry in a temporary
// configuration home so that tests never touch the user's own.
class PostiqProcess {
public:
    PostiqProcess(const QString& folder, const QString& configHome, const QStringList& arguments = {});
    ~PostiqProcess();

    // Waits for the end of the program and returns its exit status (-1 when it did not end in time).
    int waitForExit();
    void terminate() { process_.terminate(); } // SIGTERM
    bool running() const { return process_.state() != QProcess::NotRunning; }
    qint64 processId() const { return process_.processId(); }
    QByteArray standardError() { return process_.readAllStandardError(); }
    QByteArray standardOutput() { return process_.readAllStandardOutput(); }

private:
    QProcess process_;
};

// Runs the program with `arguments` (e.g. a control option) on a folder to its end; returns its exit
// status (-1 when it did not end in time) and puts what it wrote on stderr in *standardError (and
// on stdout in *standardOutput).
int runToEnd(const QString& folder, const QString& configHome, const QStringList& arguments,
             QByteArray* standardError = nullptr, QByteArray* standardOutput = nullptr);

} // namespace postiq::test
