#pragma once

#include <QString>
#include <QTemporaryDir>

namespace postiq::test {

// A certificate authority made for the tests with the openssl command, and the server
// certificates it issues. Everything lives in a temporary folder and expires in two days.
class TestAuthority {
public:
    // A key and a certificate (PEM files) for a test server.
    struct Identity {
        QString certificate;
        QString key;
    };

    explicit TestAuthority(const QString& name = QStringLiteral("Postiq Test Authority"));
    bool ok() const { return ok_; }
    // The authority's own certificate: what a client trusts.
    QString caFile() const { return caFile_; }
    // A server certificate for `altNames` ("IP:127.0.0.1,DNS:submission.test"), valid from now for
    // `days`; a negative number makes one that has already expired.
    Identity issue(const QString& altNames, int days = 2);

private:
    bool openssl(const QStringList& arguments);

    QTemporaryDir dir_;
    QString caFile_;
    QString caKey_;
    int issued_ = 0;
    bool ok_ = false;
};

} // namespace postiq::test
