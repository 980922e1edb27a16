#include "core/postiq_process.h"

#include <QRandomGenerator>
#include <QTcpServer>

namespace postiq::test {

PostiqProcess::PostiqProcess(const QString& folder, const QString& configHome, const QStringList& arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    process_.setProcessEnvironment(environment);
    process_.start(QStringLiteral(POSTIQ_BINARY),
                   QStringList{QStringLiteral("--headless"), QStringLiteral("--folder"), folder} + arguments);
    process_.waitForStarted(5000);
}

PostiqProcess::~PostiqProcess()
{
    if (running()) {
        process_.kill();
        process_.waitForFinished(5000);
    }
}

int PostiqProcess::waitForExit()
{
    if (!process_.waitForFinished(10000))
        return -1;
    return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
}

int runToEnd(const QString& folder, const QString& configHome, const QStringList& arguments,
             QByteArray* standardError, QByteArray* standardOutput)
{
    PostiqProcess run(folder, configHome, arguments);
    const int status = run.waitForExit();
    if (standardError)
        *standardError = run.standardError();
    if (standardOutput)
        *standardOutput = run.standardOutput();
    return status;
}


} // namespace postiq::test
