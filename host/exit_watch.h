// The process can end inside a module callback (exit 77 on a lost session).
// This watch, read by the on_exit handler, knows which statement was running,
// whether that end was expected, and which scratch directory to remove.
#pragma once

#include <optional>
#include <string>

namespace host {

struct ExitWatch {
    std::string scratch;
    std::string running;  // "file:line" of the statement being executed
    bool awaited = false;
    int status = 0;
    std::optional<int> next_status;  // set by "expect exit", taken by the next statement
    bool finished = false;           // the host ends on its own
};
extern ExitWatch g_watch;

// Registers the on_exit handler once per process.
void arm_exit_watch();

}  // namespace host
