#pragma once

#include <QSslConfiguration>

namespace postiq {

// The TLS settings of a submission connection: TLS 1.2 or later, the server's certificate checked
// against the system's certificate store (plus the test authority that POSTIQ_TEST_CA_FILE may
// name) and against the host name. Verification is never switched off.
QSslConfiguration SubmissionTlsConfiguration();

} // namespace postiq
