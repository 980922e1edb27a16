#include "delivery/tls_trust.h"

#include <QSslCertificate>
#include <QSslSocket>

#include "platform/test_trust.h"

namespace postiq {

QSslConfiguration SubmissionTlsConfiguration()
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.setProtocol(QSsl::TlsV1_2OrLater);
    config.setPeerVerifyMode(QSslSocket::VerifyPeer);
    const QString testAuthority = TestCaFile();
    if (!testAuthority.isEmpty()) {
        // Added to the system's store, never instead of it.
        config.setCaCertificates(QSslConfiguration::systemCaCertificates()
                                 + QSslCertificate::fromPath(testAuthority, QSsl::Pem));
    }
    return config;
}

} // namespace postiq
