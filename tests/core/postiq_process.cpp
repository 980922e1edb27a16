#include "core/postiq_process.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QThread>
#include <csignal>

namespace postiq::test {

bool waitFor(const std::function<bool()>& condition, int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > milliseconds)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

PostiqProcess::PostiqProcess(const QString& folder, const QString& configHome)
    : folder_(folder), configHome_(configHome)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome_);
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    process_.setProcessEnvironment(environment);
}

PostiqProcess::~PostiqProcess()
{
    if (running()) {
        process_.kill();
        process_.waitForFinished(5000);
    }
}

void PostiqProcess::start(const QStringList& extraArguments)
{
    process_.start(QStringLiteral(POSTIQ_BINARY),
                   QStringList{QStringLiteral("--headless"), QStringLiteral("--folder"), folder_} + extraArguments);
    process_.waitForStarted(5000);
}

int PostiqProcess::waitForExit(int milliseconds)
{
    if (!process_.waitForFinished(milliseconds))
        return -1;
    return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
}

void PostiqProcess::terminate() { process_.terminate(); }

QByteArray PostiqProcess::standardError() { return process_.readAllStandardError(); }

Finished runToEnd(const QString& folder, const QString& configHome, const QStringList& arguments)
{
    PostiqProcess process(folder, configHome);
    process.start(arguments);
    const int status = process.waitForExit();
    return {status, process.standardError()};
}

quint16 freeLoopbackPort()
{
    // The listening port is a 16-bit signed setting, so the kernel's ephemeral ports (above 32767)
    // are out of reach: probe the range below instead.
    for (int tries = 0; tries < 1000; ++tries) {
        const quint16 port = quint16(QRandomGenerator::global()->bounded(20000, 32000));
        QTcpServer probe;
        if (probe.listen(QHostAddress::AnyIPv4, port))
            return port;
    }
    return 0;
}

} // namespace postiq::test
