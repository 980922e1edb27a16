#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

namespace postiq {

// What the keyring said about one secret.
struct KeyringAnswer {
    enum Status {
        Done,      // read (the secret is here) or written
        NotFound,  // the keyring answered, and holds no such secret
        NoKeyring, // no keyring answered, or it refused
    };
    Status status = NoKeyring;
    QByteArray secret;
    QString reason; // why not, in the keyring's words
};

// The desktop's store of secrets. Every answer comes later, from the event loop, never inside
// the call; none comes once `context` is gone.
class Keyring {
public:
    using Answer = std::function<void(const KeyringAnswer&)>;

    virtual ~Keyring() = default;
    virtual void read(const QString& key, QObject* context, Answer answer) = 0;
    virtual void write(const QString& key, const QByteArray& secret, QObject* context, Answer answer) = 0;
};

// The module that reaches the Secret Service; it is looked for beside the program and in
// ../lib/postiq, or in `moduleFolders` when given.
inline constexpr char kKeyringModuleFile[] = "libpostiq_keyring.so";

// The Secret Service of the desktop session (GNOME Keyring, KWallet, KeePassXC...), reached on
// the session's message bus. None where the session has no bus to look on (a server, a service
// started by systemd): nothing is tried, nothing is loaded. None either without its module.
std::unique_ptr<Keyring> SessionKeyring(const QStringList& moduleFolders = {});

} // namespace postiq
