#include "update/version_check.h"

#include <QTcpSocket>
#include <limits>

namespace postiq {

std::optional<UpdateServer> parseUpdateServer(const QString& text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return std::nullopt;
    const qsizetype colon = trimmed.lastIndexOf(u':');
    if (colon < 0)
        return UpdateServer{trimmed, 80};
    bool ok = false;
    const uint port = trimmed.mid(colon + 1).toUInt(&ok);
    if (!ok || port == 0 || port > 65535 || colon == 0)
        return std::nullopt;
    return UpdateServer{trimmed.left(colon), quint16(port)};
}

std::optional<QString> versionInReply(const QByteArray& reply)
{
    const qsizetype begin = reply.indexOf("BEGIN");
    if (begin < 0)
        return std::nullopt;
    const QByteArray rest = reply.mid(begin + 5);
    const qsizetype end = rest.indexOf("END");
    if (end < 0)
        return std::nullopt;
    return QString::fromLatin1(rest.left(end));
}

namespace {
std::optional<int> shortNumber(const QString& text)
{
    bool ok = false;
    const int value = text.trimmed().toInt(&ok);
    if (!ok || value < std::numeric_limits<int16_t>::min() || value > std::numeric_limits<int16_t>::max())
        return std::nullopt;
    return value;
}
} // namespace

bool isNewerVersion(const QString& announced, int localMajor, int localMinor)
{
    const qsizetype dot = announced.indexOf(u'.');
    if (dot < 0)
        return false;
    const auto major = shortNumber(announced.left(dot));
    // The minor part ends at a second dot, if any.
    const auto minor = shortNumber(announced.mid(dot + 1).section(u'.', 0, 0));
    if (!major || !minor)
        return false;
    return *major > localMajor || (*major == localMajor && *minor > localMinor);
}

QByteArray versionRequest(const QString& host, const QString& localVersion)
{
    return "GET /Postiq/version HTTP/1.1\r\n"
           "Accept: image/gif, image/jpeg, */*\r\n"
           "Accept-Language: fr\r\n"
           "Accept-Encoding: gzip , deflate\r\n"
           "User-Agent: Postiq/" + localVersion.toLatin1() + " (Postiq Application from Valbrin)\r\n"
           "Host: " + host.toLatin1() + "\r\n"
           "Connection: Keep-Alive\r\n"
           "\r\n";
}

VersionCheck::VersionCheck(UpdateServer server, int localMajor, int localMinor, QObject* parent)
    : QObject(parent), server_(std::move(server)), localMajor_(localMajor), localMinor_(localMinor)
{
}

VersionCheck::~VersionCheck() = default;

void VersionCheck::start()
{
    if (socket_)
        return;
    socket_ = new QTcpSocket(this);
    connect(socket_, &QTcpSocket::connected, this, &VersionCheck::connected);
    connect(socket_, &QTcpSocket::readyRead, this, &VersionCheck::dataArrived);
    connect(socket_, &QTcpSocket::errorOccurred, this, &VersionCheck::closeSocket);
    socket_->connectToHost(server_.host, server_.port);
}

void VersionCheck::connected()
{
    socket_->write(versionRequest(server_.host,
                                  QString::number(localMajor_) + u'.' + QString::number(localMinor_)));
}

void VersionCheck::dataArrived()
{
    if (answered_ || !socket_)
        return;
    answered_ = true;
    const QByteArray reply = socket_->readAll();
    closeSocket();
    const std::optional<QString> version = versionInReply(reply);
    if (version && isNewerVersion(*version, localMajor_, localMinor_))
        emit newerVersion(*version);
}

// Never inside the socket's own signal: the socket goes once the loop is back.
void VersionCheck::closeSocket()
{
    if (!socket_)
        return;
    socket_->disconnect(this);
    socket_->abort();
    socket_->deleteLater();
    socket_ = nullptr;
}

} // namespace postiq
