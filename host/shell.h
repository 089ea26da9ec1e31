// Interactive use of the scenario language: the same commands, read line by
// line with editing, history and completion when readline is available. A
// mistake prints one line and the shell goes on.
#pragma once

#include "host.h"

namespace host {

// Returns the exit status of the shell (0 at end of input).
int run_shell(Host &h);

}  // namespace host
