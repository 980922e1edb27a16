#include "ui/desktop_bench.h"

#include <QDir>

#include "core/postiq_process.h"

namespace postiq::test {

quint16 closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort(); // free again once the server goes
}

DesktopBench::DesktopBench(const QByteArray& ini, bool trayAvailable, UpdateServer updateServer)
    : port(freeListenPort()), ini_(ini), trayAvailable_(trayAvailable), updateServer_(std::move(updateServer))
{
    if (updateServer_.port == 9)
        updateServer_.port = closedPort();
}

DesktopBench::~DesktopBench()
{
    if (application)
        application->quit();
    shell.reset();
    application.reset();
}

void DesktopBench::writeLanguage(const QString& name, const QByteArray& text)
{
    QDir().mkpath(path(QStringLiteral("language")));
    writeFile(path(QStringLiteral("language/") + name + QStringLiteral(".ini")), text);
}

void DesktopBench::start()
{
    writeFile(path(QStringLiteral("Postiq.ini")), "ListenPort\t" + QByteArray::number(port) + "\r\n" + ini_);
    application = std::make_unique<Application>(dir.path(), PlatformServices{desktop, registry, network, clock});
    application->setKeyring(std::move(keyring));
    shell = std::make_unique<DesktopShell>(*application, desktop,
                                           DesktopShell::Options{updateServer_, trayAvailable_});
    application->start();
}

} // namespace postiq::test
