#include "delivery/exchanger_concurrency.h"

#include <algorithm>

namespace postiq {

void ExchangerConcurrency::fix(int connections)
{
    initial = limit = std::max(1, connections);
    windows_.clear();
}

int ExchangerConcurrency::window(const QByteArray& exchanger) const
{
    return std::clamp(windows_.value(exchanger, initial), 1, std::max(1, limit));
}

void ExchangerConcurrency::note(const QByteArray& exchanger, Ending ending)
{
    int next = window(exchanger);
    switch (ending) {
    case Ending::Carried:
        next = std::min(next + 1, std::max(1, limit));
        break;
    case Ending::Answered:
        break;
    case Ending::Faltered:
        next = std::max(next - 1, 1);
        break;
    case Ending::Silent:
        silent_.insert(exchanger);
        windows_.remove(exchanger);
        return;
    }
    silent_.remove(exchanger);
    if (next == initial)
        windows_.remove(exchanger);
    else
        windows_.insert(exchanger, next);
}

} // namespace postiq
