// Capturing an action's standard output (see output_capture.h).
#include "output_capture.h"

#include <stdio.h>
#include <unistd.h>

#include <iostream>

namespace host {

namespace {

struct StdoutCapture {
    FILE *file = nullptr;
    int saved = -1;
};
StdoutCapture g_capture;

}  // namespace

bool capture_begin() {
    fflush(stdout);
    g_capture.file = tmpfile();
    g_capture.saved = g_capture.file != nullptr ? dup(STDOUT_FILENO) : -1;
    if (g_capture.saved < 0 || dup2(fileno(g_capture.file), STDOUT_FILENO) < 0) {
        if (g_capture.saved >= 0) close(g_capture.saved);
        if (g_capture.file != nullptr) fclose(g_capture.file);
        g_capture = StdoutCapture{};
        return false;
    }
    return true;
}

// Standard output back where it was; returns what the action printed.
std::string capture_end() {
    if (g_capture.file == nullptr) return {};
    fflush(stdout);
    dup2(g_capture.saved, STDOUT_FILENO);
    close(g_capture.saved);
    std::string out;
    rewind(g_capture.file);
    char buf[4096];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, g_capture.file)) > 0) out.append(buf, n);
    fclose(g_capture.file);
    g_capture = StdoutCapture{};
    return out;
}

bool capture_active() {
    return g_capture.file != nullptr;
}

void flush_module_stdout() {
    fflush(stdout);
}

void pass_through(const std::string &text) {
    flush_module_stdout();
    std::cout << text << std::flush;
}

}  // namespace host
