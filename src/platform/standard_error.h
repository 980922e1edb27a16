#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace postiq {

// Where this process's standard error goes, and what it may bind: the facts the terminal report
// needs from the operating system.
namespace standard_error {

// A person may be reading: stderr is a terminal.
bool isTerminal();
// systemd connected stderr to the journal (JOURNAL_STREAM names this very descriptor), so each
// line written there is a journal entry and may begin with a "<N>" priority prefix.
bool isJournal();
// Writes one line (a line end is added) in a single write, so that lines of threads never mix.
void writeLine(const QByteArray& line);

} // namespace standard_error

// Whether binding `port` needs CAP_NET_BIND_SERVICE that this process does not have: the port lies
// below the system's first unprivileged port (1024 unless the administrator lowered it) and the
// capability is not in this process's effective set.
bool portNeedsMissingPrivilege(quint16 port);

} // namespace postiq
