#pragma once

#include <QString>
#include <QStringList>

namespace postiq {

// The folder that holds the running executable: the program folder when none is given. Needs the
// application object.
QString defaultProgramFolder();

// The folder of the running executable, read from the system without the application object.
QString executableFolder();

// Creates the folder when it is missing and checks that files can be created in it. On failure
// returns False with a message for the user in *error.

bool prepareProgramFolder(const QString& dir, QString* error);

// The path of the program folder's subfolder `name`, found without regard to letter case (an
// existing "Language" serves as "language"); an exact match wins. When there is none, the path
// is built with the name as given.
QString SubfolderPath(const QString& programFolder, const QString& name);

// Where language files are looked for, in order: the program folder's own `language` folder,
// the one beside the executable (a build's), then the copies installed with the program
// (`postiq/language` under the system's data folders, such as /usr/share). A file in the program
// folder wins over the others of the same name.
QStringList LanguageFolders(const QString& programFolder);

} // namespace postiq
