#pragma once

#include <QByteArray>

#include "core/control_channel.h"

namespace postiq {

class Application;

// Carries out a command of the control channel in the running relay and says what came of it.
// A command that does not apply (start while the service runs, stop while it is stopped, flush
// with nothing deferred) is answered "nothing: " with the reason; one that cannot be done now is
// "refused: ". None of them ends the relay, except quit.
ControlAnswer CarryOutRelayCommand(Application& application, const QByteArray& verb, const QByteArray& argument);

} // namespace postiq
