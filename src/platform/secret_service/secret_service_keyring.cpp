// The Secret Service keyring, built as a module of its own: QtKeychain brings Qt D-Bus and
// libdbus with it, which a relay without a desktop session never needs in its memory.
#include <QPointer>
#include <qt6keychain/keychain.h>

#include "platform/keyring.h"

namespace postiq {

namespace {

// The entries of every Postiq are filed under this service name; the key tells them apart.
const QString kService = QStringLiteral("Postiq");

KeyringAnswer answerOf(const QKeychain::Job& job, const QByteArray& secret)
{
    switch (job.error()) {
    case QKeychain::NoError:
        return {KeyringAnswer::Done, secret, {}};
    case QKeychain::EntryNotFound:
        return {KeyringAnswer::NotFound, {}, job.errorString()};
    default:
        return {KeyringAnswer::NoKeyring, {}, job.errorString()};
    }
}

class SecretServiceKeyring : public Keyring {
public:
    void read(const QString& key, QObject* context, Answer answer) override
    {
        auto* job = new QKeychain::ReadPasswordJob(kService);
        job->setKey(key);
        start(job, context, std::move(answer), [job] {
            return answerOf(*job, job->error() == QKeychain::NoError ? job->binaryData() : QByteArray());
        });
    }

    void write(const QString& key, const QByteArray& secret, QObject* context, Answer answer) override
    {
        auto* job = new QKeychain::WritePasswordJob(kService);
        job->setKey(key);
        job->setBinaryData(secret);
        start(job, context, std::move(answer), [job] { return answerOf(*job, {}); });
    }

private:
    // The job deletes itself once finished. Its answer is taken at once and handed over posted to
    // the context, so that it never comes from inside the call, nor after the context is gone.
    static void start(QKeychain::Job* job, QObject* context, Answer answer, std::function<KeyringAnswer()> take)
    {
        job->setAutoDelete(true);
        QPointer<QObject> receiver(context);
        QObject::connect(job, &QKeychain::Job::finished, job, [receiver, answer, take] {
            if (!receiver)
                return;
            QMetaObject::invokeMethod(receiver, [answer, said = take()] { answer(said); }, Qt::QueuedConnection);
        });
        job->start();
    }
};
} // namespace

} // namespace postiq

extern "C" __attribute__((visibility("default"))) postiq::Keyring* postiq_make_keyring()
{
    return new postiq::SecretServiceKeyring();
}
