#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace postiq {

// How the connection to a mail host is secured.
enum class Security : uint8_t {
    Plain,       // plain SMTP with HELO: the mail exchangers, and a fixed server given as host[:port]
    StartTls,    // smtp://: plain at first, EHLO, STARTTLS required, EHLO again over TLS
    ImplicitTls, // smtps://: TLS from the first byte, then EHLO
};

// Where and how a delivery connects, read from a mail host name or the SmtpServer setting.
struct ServerRoute {
    Security security = Security::Plain;
    QByteArray user; // the login of a submission route; empty: no login
    QString host;
    quint16 port = 25;

    bool submission() const { return security != Security::Plain; }
    // "host:port" ("[v6]:port"), as the logs name a submission server: never the user.
    QByteArray hostAndPort() const;
};

inline constexpr quint16 kSmtpPort = 25;
inline constexpr quint16 kSubmissionPort = 587;
inline constexpr quint16 kSubmissionsPort = 465;

// "host", "host:port" and "[v6]:port" are plain (port 25 by default); "smtp://[user@]host[:port]"
// (587) and "smtps://[user@]host[:port]" (465) are submission routes. The user may be
// percent-encoded, and a user that is itself an address ("me@isp.example") may be written as is:
// the host follows the last "@".
ServerRoute ParseServerRoute(const QByteArray& configured);

} // namespace postiq
