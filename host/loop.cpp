// The callback loop: after each action it runs until nothing is pending, and
// a member or responder process runs it until it is told to stop.
#include <unistd.h>

#include "host.h"
#include "output_capture.h"

namespace host {

namespace {

// One command must not keep the loop busy for ever: a module that keeps
// requeueing work would otherwise hang the run instead of failing it.
constexpr size_t kMaxCallbacks = 10'000'000;

}  // namespace

void Host::settle() {
    size_t n = 0;
    while (platform::run_one()) {
        if (++n > kMaxCallbacks) {
            throw ScriptError("the callback loop did not settle: more than " +
                              std::to_string(kMaxCallbacks) + " callbacks for one command");
        }
    }
}

void Host::serve(const volatile sig_atomic_t &stop) {
    settle();
    flush_module_stdout();
    // Nothing can arrive from outside the embedded store: wait for the signal.
    while (!platform::db_on_redis() && stop == 0) pause();
    while (stop == 0) {
        // No expectation reads a serving process's log lines: the log file
        // has them, and memory keeps at most a thousand callbacks' worth.
        for (size_t n = 1; platform::run_one(); ++n) {
            if (n % 1000 == 0) platform::take_log();
        }
        platform::take_log();
        flush_module_stdout();
        // No expectation follows: the lines are in the log file already, and
        // kept in memory they would grow for as long as the member serves.
        platform::take_log();
        platform::db_wait(100);
    }
    settle();
    // With --oracle, the end of serving is a check too: TOPO_DB against the caches.
    check_oracle();
}

}  // namespace host
