#pragma once

#include <QString>

namespace postiq {

// The folder that holds the running executable: the program folder when none is given. Needs the
// application object.
QString defaultProgramFolder();

// Creates the folder when it is missing and checks that files can be created in it. On failure
// returns False with a message for the user in *error.
bool prepareProgramFolder(const QString& dir, QString* error);

// The path of the program folder's subfolder `name`, found without regard to letter case (an
// existing "Language" serves as "language"); an exact match wins. When there is none, the path
// is built with the name as given.
QString SubfolderPath(const QString& programFolder, const QString& name);

} // namespace postiq
