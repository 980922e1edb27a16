#pragma once

#include <QStringList>
#include <optional>

namespace postiq {

// Called through a link named "sendmail", the program is the sendmail interface with all its
// arguments; named "mailq", it lists the queue (--folder and --json are taken). Returns the exit
// status of that run, or nothing when the name is any other.
std::optional<int> RunByProgramName(int argc, char** argv, const QStringList& arguments);

} // namespace postiq
