#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <functional>

namespace postiq::test {

// Waits, spinning the event loop, until the condition holds or the time is up.
bool waitFor(const std::function<bool()>& condition, int milliseconds = 10000);

// The real program run headless on a program folder, with its registry in a temporary
// configuration home so that tests never touch the user's own.
class PostiqProcess {
public:
    PostiqProcess(const QString& folder, const QString& configHome);
    ~PostiqProcess();

    void start(const QStringList& extraArguments = {});
    // Waits for the end of the program and returns its exit status (-1 when it did not end in time).
    int waitForExit(int milliseconds = 10000);
    void terminate(); // SIGTERM
    bool running() const { return process_.state() != QProcess::NotRunning; }
    QByteArray standardError();

private:
    QString folder_;
    QString configHome_;
    QProcess process_;
};

// Runs the program to its end (for refusals) and gives its exit status and stderr.
struct Finished {
    int status;
    QByteArray standardError;
};
Finished runToEnd(const QString& folder, const QString& configHome, const QStringList& arguments = {});

// A TCP port on 127.0.0.1 that nothing listens on right now.
quint16 freeLoopbackPort();

} // namespace postiq::test
