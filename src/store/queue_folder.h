#pragma once

#include <QString>

namespace postiq {

// The path of the program folder's subfolder `name` ("OutBox", "Deferred", "Error", "language").
// Letter case is ignored when looking for it, so an existing "outbox" serves as "OutBox"; when no
// such folder exists, the path is built with the name as given.
QString QueueFolder(const QString& programFolder, const QString& name);

} // namespace postiq
