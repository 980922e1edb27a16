#include "platform/instance_lock.h"

namespace postiq {

InstanceLock::InstanceLock(const QString& folder) : lock_(folder + QStringLiteral("/.postiq.lock"))
{
    // The lock is held for the whole run, so its age says nothing: only a lock whose process has
    // gone may be taken over.
    lock_.setStaleLockTime(0);
}

InstanceLock::~InstanceLock() { lock_.unlock(); }

bool InstanceLock::tryLock() { return lock_.isLocked() || lock_.tryLock(0); }

} // namespace postiq
