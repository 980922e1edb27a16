#include "delivery/route_check.h"

#include <QTimer>

namespace postiq {

struct RouteCheck::Private {
    SenderRoute route;
};

RouteCheck::RouteCheck(Logs&, const Settings&, SenderRoute route, QObject* parent)
    : QObject(parent), d_(std::make_unique<Private>(Private{std::move(route)}))
{
}

RouteCheck::~RouteCheck() = default;

void RouteCheck::start()
{
    QTimer::singleShot(0, this, [this] { emit finished(false, QStringLiteral("route %1: not checked").arg(d_->route.name)); });
}

} // namespace postiq
