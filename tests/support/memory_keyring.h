#pragma once

#include <QMap>
#include <QMetaObject>

#include "platform/keyring.h"

namespace postiq::test {

// A keyring in memory that answers from the event loop, as a real one does, or that nobody
// answers (`answers` false: locked, refused, gone).
class MemoryKeyring : public Keyring {
public:
    QMap<QString, QByteArray> entries;
    bool answers = true;

    void read(const QString& key, QObject* context, Answer answer) override
    {
        const KeyringAnswer said = !answers           ? KeyringAnswer{KeyringAnswer::NoKeyring, {}, "no keyring"}
                                   : entries.contains(key) ? KeyringAnswer{KeyringAnswer::Done, entries.value(key), {}}
                                                           : KeyringAnswer{KeyringAnswer::NotFound, {}, {}};
        QMetaObject::invokeMethod(context, [answer, said] { answer(said); }, Qt::QueuedConnection);
    }
    void write(const QString& key, const QByteArray& secret, QObject* context, Answer answer) override
    {
        if (answers)
            entries[key] = secret;
        const KeyringAnswer said{answers ? KeyringAnswer::Done : KeyringAnswer::NoKeyring, {}, {}};
        QMetaObject::invokeMethod(context, [answer, said] { answer(said); }, Qt::QueuedConnection);
    }
};

} // namespace postiq::test
