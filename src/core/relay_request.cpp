#include "core/relay_request.h"

#include <QCoreApplication>
#include <QDir>
#include <QTimer>

#include "core/mail_folder.h"

namespace postiq {

namespace {
ControlRequest::Outcome ask(const QString& serverName, const QByteArray& command, std::chrono::milliseconds timeout,
                            QString* text)
{
    ControlRequest request(serverName, command, timeout);
    ControlRequest::Outcome outcome = ControlRequest::Outcome::Failed;
    QObject::connect(&request, &ControlRequest::finished, &request,
                     [&](ControlRequest::Outcome result, const QString& answer) {
                         outcome = result;
                         *text = answer;
                         QCoreApplication::exit(0);
                     });
    QTimer::singleShot(0, &request, &ControlRequest::send); // once the loop runs, so that exit() counts
    QCoreApplication::exec();
    return outcome;
}
} // namespace

ControlRequest::Outcome AskRunningRelay(const QString& folder, const QByteArray& command,
                                        std::chrono::milliseconds timeout, QString* text)
{
    const QString name = controlServerName(folder);
    ControlRequest::Outcome outcome = ask(name, command, timeout, text);
    if (outcome == ControlRequest::Outcome::NotRunning && folder == QLatin1String(kSystemMailFolder))
        outcome = ask(QStringLiteral("/run/postiq/") + name, command, timeout, text);
    return outcome;
}

} // namespace postiq
