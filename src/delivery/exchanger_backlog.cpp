#include "delivery/exchanger_backlog.h"

namespace postiq {

void ExchangerBacklog::wait(const QByteArray& name, const QByteArray& exchanger)
{
    const auto known = exchangerOf_.constFind(name);
    if (known != exchangerOf_.constEnd() && *known == exchanger)
        return;
    exchangerOf_.insert(name, exchanger);
    waiting_[exchanger].push_back(name);
}

std::optional<QByteArray> ExchangerBacklog::exchangerOf(const QByteArray& name) const
{
    const auto known = exchangerOf_.constFind(name);
    if (known == exchangerOf_.constEnd())
        return std::nullopt;
    return *known;
}

void ExchangerBacklog::forget(const QByteArray& name)
{
    exchangerOf_.remove(name);
    if (exchangerOf_.isEmpty())
        waiting_.clear(); // nothing waits: the names left in the lists are all forgotten ones
}

std::optional<QByteArray> ExchangerBacklog::take(const QByteArray& exchanger)
{
    const auto queue = waiting_.find(exchanger);
    if (queue == waiting_.end())
        return std::nullopt;
    while (!queue->empty()) {
        const QByteArray name = queue->front();
        queue->pop_front();
        const auto known = exchangerOf_.constFind(name);
        if (known != exchangerOf_.constEnd() && *known == exchanger) {
            exchangerOf_.erase(known);
            if (queue->empty())
                waiting_.erase(queue);
            return name;
        }
    }
    waiting_.erase(queue);
    return std::nullopt;
}

} // namespace postiq
