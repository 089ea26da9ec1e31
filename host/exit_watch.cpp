// The end of the process while a statement runs (see exit_watch.h).
#include "exit_watch.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "output_capture.h"

namespace host {

ExitWatch g_watch;

namespace {

void on_process_exit(int status, void *) {
    // The process may end inside an action: what it printed so far is shown.
    const std::string printed = capture_end();
    fwrite(printed.data(), 1, printed.size(), stdout);
    if (!g_watch.finished && !g_watch.running.empty()) {
        printf("exit: %d\n", status);
        fflush(stdout);
        if (g_watch.awaited && status != g_watch.status) {
            fprintf(stderr, "%s: expected exit %d, got exit %d\n", g_watch.running.c_str(),
                    g_watch.status, status);
            fflush(stderr);
            std::error_code ec;
            std::filesystem::remove_all(g_watch.scratch, ec);
            _exit(1);
        }
        if (!g_watch.awaited) {
            fprintf(stderr, "%s: the module ended the process with status %d\n",
                    g_watch.running.c_str(), status);
        }
    }
    if (!g_watch.scratch.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(g_watch.scratch, ec);
    }
}

}  // namespace

void arm_exit_watch() {
    static bool registered = false;
    if (!registered) {
        on_exit(on_process_exit, nullptr);
        registered = true;
    }
}

}  // namespace host
