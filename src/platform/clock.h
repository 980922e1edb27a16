#pragma once

#include <QDateTime>

namespace postiq {

// The local wall clock. Injected so that date stamps can be tested at a fixed time.
class Clock {
public:
    virtual ~Clock() = default;
    virtual QDateTime now() const = 0;
};

class SystemClock : public Clock {
public:
    QDateTime now() const override { return QDateTime::currentDateTime(); }
};

} // namespace postiq
