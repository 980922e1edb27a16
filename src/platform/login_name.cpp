#include "platform/login_name.h"

#include <pwd.h>
#include <unistd.h>

namespace postiq {

QByteArray LoginName()
{
    if (const passwd* entry = ::getpwuid(::geteuid()); entry && entry->pw_name && *entry->pw_name)
        return QByteArray(entry->pw_name);
    return QByteArray::number(::geteuid());
}

} // namespace postiq
