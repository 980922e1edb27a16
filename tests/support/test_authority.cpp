#include "support/test_authority.h"

#include <QFile>
#include <QProcess>

#include "support/fakes.h"

namespace postiq::test {

namespace {
const QStringList kNewEcKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"};
}

TestAuthority::TestAuthority(const QString& name)
{
    caFile_ = dir_.filePath(QStringLiteral("ca.pem"));
    caKey_ = dir_.filePath(QStringLiteral("ca.key"));
    ok_ = dir_.isValid()
        && openssl(QStringList{"req", "-x509"} + kNewEcKey
                   + QStringList{"-keyout", caKey_, "-out", caFile_, "-days", "2", "-subj", "/CN=" + name,
                                 "-addext", "basicConstraints=critical,CA:TRUE", "-addext",
                                 "keyUsage=critical,keyCertSign,cRLSign"});
}

TestAuthority::Identity TestAuthority::issue(const QString& altNames, int days)
{
    const QString base = dir_.filePath(QStringLiteral("server%1").arg(++issued_));
    Identity identity{base + ".pem", base + ".key"};
    writeFile(base + ".ext", "subjectAltName=" + altNames.toUtf8()
                                 + "\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n");
    const bool made = ok_
        && openssl(QStringList{"req"} + kNewEcKey
                   + QStringList{"-keyout", identity.key, "-out", base + ".csr", "-subj", "/CN=test server"})
        && openssl({"x509", "-req", "-in", base + ".csr", "-CA", caFile_, "-CAkey", caKey_, "-CAcreateserial",
                    "-out", identity.certificate, "-days", QString::number(days), "-extfile", base + ".ext"});
    if (!made)
        identity = {};
    return identity;
}

bool TestAuthority::openssl(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("openssl"), arguments);
    // A test helper may block: nothing else runs on this loop while the suite prepares.
    return process.waitForFinished(30'000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
}

} // namespace postiq::test
