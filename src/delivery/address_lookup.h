#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>
#include <functional>

class QObject;

namespace postiq {

// The addresses of a mail host, found off the event loop; `done` runs on the event loop with the
// addresses (empty when the name does not resolve), and never once `context` has gone.
void ResolveAddresses(const QString& host, QObject* context, std::function<void(const QList<QHostAddress>&)> done);

} // namespace postiq
