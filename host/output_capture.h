// What an action prints: standard output goes to a scratch file for the length
// of the action and is read back afterwards, kept for the expectations and
// passed on. Output of the module from any callback (timers included) and of
// the host's own reports alike.
#pragma once

#include <string>

namespace host {

// Starts capturing; false when standard output cannot be redirected (the
// action's output then goes straight through).
bool capture_begin();
// Standard output back where it was; returns what the action printed.
std::string capture_end();
// A capture is running.
bool capture_active();
// Output of the module's own printf calls must land before ours.
void flush_module_stdout();
// Writes what a command printed exactly as it was printed: output that does
// not end in a newline stays that way (a debug command's level line, say).
void pass_through(const std::string &text);

}  // namespace host
