#include "ui/desktop_bench.h"

#include <QDir>

#include "core/postiq_process.h"
#include "store/message.h"

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

QByteArray DesktopBench::enqueue(const QByteArray& subject, const QList<QByteArray>& recipients,
                                 const QByteArray& body)
{
    CMessage m(application->logs());
    m.From = "<me@here.example>";
    for (const QByteArray& r : recipients)
        m.AddRcptTo(r);
    m.Data = "From: me@here.example\r\nSubject: " + subject + "\r\n\r\n" + body;
    return application->queue().enqueue(m).first();
}

void DesktopBench::fail(const QByteArray& id, QueueFolder to, const QByteArray& error)
{
    CMessage m(application->logs());
    application->queue().read(QueueFolder::OutBox, id, m);
    m.Essai = 1;
    m.LastError = error;
    application->queue().move(QueueFolder::OutBox, to, id, &m);
}

} // namespace postiq::test
