#pragma once

#include <QLockFile>
#include <QString>

namespace postiq {

// One running program per program folder: a lock file in the folder, held while the object
// lives. A lock left behind by a process that no longer runs is taken over.
class InstanceLock {
public:
    explicit InstanceLock(const QString& folder);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // True when this object now holds the lock; never waits.
    bool tryLock();

private:
    QLockFile lock_;
};

} // namespace postiq
