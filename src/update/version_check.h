#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <optional>

class QTcpSocket;

namespace postiq {

// Where the version check asks: the product's web server unless "host:port" says otherwise.
struct UpdateServer {
    QString host;
    quint16 port = 80;
};
// Reads "host:port" (a bare host keeps port 80); empty or malformed text gives nothing.
std::optional<UpdateServer> parseUpdateServer(const QString& text);

// The version text between the first "BEGIN" and the first "END" after it, as it is.
// Nothing when the reply has no "BEGIN" or no "END" after it.
std::optional<QString> versionInReply(const QByteArray& reply);
// Whether the announced "major.minor" is newer than the local version: the majors decide, the
// minors break a tie. Text without a "." or with parts that are not 16-bit numbers is never newer.
bool isNewerVersion(const QString& announced, int localMajor, int localMinor);

// The HTTP request of the check, lines ended by CR LF and closed by an empty line.
QByteArray versionRequest(const QString& host, const QString& localVersion);

// The once-per-start check of the published version, on its own socket. Only the first piece of
// the reply is read; every failure (no server, no answer, a reply without a version) is silent.
class VersionCheck : public QObject {
    Q_OBJECT
public:
    VersionCheck(UpdateServer server, int localMajor, int localMinor, QObject* parent = nullptr);
    ~VersionCheck() override;

    void start();

signals:
    // A newer version is published; the text is the one the server announced.
    void newerVersion(const QString& version);

private:
    void connected();
    void dataArrived();
    void closeSocket();

    UpdateServer server_;
    int localMajor_;
    int localMinor_;
    QPointer<QTcpSocket> socket_;
    bool answered_ = false;
};

} // namespace postiq
