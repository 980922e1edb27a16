#include "delivery/address_lookup.h"

#include <QHostInfo>

namespace postiq {

void ResolveAddresses(const QString& host, QObject* context, std::function<void(const QList<QHostAddress>&)> done)
{
    QHostInfo::lookupHost(host, context, [done = std::move(done)](const QHostInfo& info) {
        done(info.error() == QHostInfo::NoError ? info.addresses() : QList<QHostAddress>{});
    });
}

} // namespace postiq
