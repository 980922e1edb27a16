#pragma once

#include <QString>

namespace postiq {

// postiq --check-route NAME: tries the route NAME of the folder's Routes.ini in this process (no
// running relay needed) and prints one line that says what worked and what did not. Exit status
// 0 when everything worked, 1 when something failed, 2 when there is no such route.
int RunRouteCheckCommand(int argc, char** argv, const QString& routeName, const QString& folderOption);

} // namespace postiq
