#pragma once

#include <QByteArray>

namespace postiq {

// The login name of the user this process runs as ("root", "alice"); the user's number when the
// system has no name for it.
QByteArray LoginName();

} // namespace postiq
