// Debug-command framework: commands registered by name, called with exactly as
// many ints as their description has %d conversions, their standard output
// captured for whoever ran them.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform_state.h"

namespace {

int count_int_args(const char *desc) {
    int n = 0;
    for (const char *p = desc; p != nullptr && (p = std::strstr(p, "%d")) != nullptr; p += 2) n++;
    return n;
}

// A handler registered through the generic type must be called through its own
// type: the callee reads exactly the ints it declares.
int call_handler(ssat_cmd_fn fn, int nargs, const int *a) {
    using F0 = int (*)();
    using F1 = int (*)(int);
    using F2 = int (*)(int, int);
    using F3 = int (*)(int, int, int);
    using F4 = int (*)(int, int, int, int);
    using F5 = int (*)(int, int, int, int, int);
    using F6 = int (*)(int, int, int, int, int, int);
    using F7 = int (*)(int, int, int, int, int, int, int);
    using F8 = int (*)(int, int, int, int, int, int, int, int);
    // Through void(*)(void), the one type every function pointer may pass as.
    auto any = reinterpret_cast<void (*)()>(fn);
    switch (nargs) {
        case 0:
            return reinterpret_cast<F0>(any)();
        case 1:
            return reinterpret_cast<F1>(any)(a[0]);
        case 2:
            return reinterpret_cast<F2>(any)(a[0], a[1]);
        case 3:
            return reinterpret_cast<F3>(any)(a[0], a[1], a[2]);
        case 4:
            return reinterpret_cast<F4>(any)(a[0], a[1], a[2], a[3]);
        case 5:
            return reinterpret_cast<F5>(any)(a[0], a[1], a[2], a[3], a[4]);
        case 6:
            return reinterpret_cast<F6>(any)(a[0], a[1], a[2], a[3], a[4], a[5]);
        case 7:
            return reinterpret_cast<F7>(any)(a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
        default:
            return reinterpret_cast<F8>(any)(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
    }
}

// Runs fn with standard output going to a scratch file, and reads it back.
template <typename Fn>
std::string capture_stdout(Fn fn) {
    std::fflush(stdout);
    FILE *tmp = std::tmpfile();
    int saved = dup(STDOUT_FILENO);
    if (tmp == nullptr || saved < 0) {
        // Cannot capture: still run the command, its output goes where stdout goes.
        if (tmp != nullptr) std::fclose(tmp);
        if (saved >= 0) close(saved);
        fn();
        return {};
    }
    dup2(fileno(tmp), STDOUT_FILENO);
    fn();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out;
    std::rewind(tmp);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, tmp)) > 0) out.append(buf, n);
    std::fclose(tmp);
    return out;
}

}  // namespace

extern "C" {

int ssat_lib_init(void *handle, const char *module) {
    (void)handle;
    (void)module;
    if (auto rv = platform::fault("ssat_lib_init")) return *rv;
    return platform::st().ssat_init_result;
}

int ssat_reg_mod_cmd(const char *module, const char *cmd, int flags, const char *desc,
                     ssat_cmd_fn handler) {
    (void)flags;
    if (auto rv = platform::fault("ssat_reg_mod_cmd")) return *rv;
    if (cmd == nullptr || handler == nullptr) return -1;
    platform::Command c{module != nullptr ? module : "", cmd, desc != nullptr ? desc : "",
                        count_int_args(desc)};
    static uint64_t seq = 0;
    auto &slot = platform::st().commands[cmd];
    // A name registered again keeps its place in the table.
    uint64_t order = slot.handler != nullptr ? slot.seq : ++seq;
    slot = platform::CommandEntry{std::move(c), handler, order};
    return 0;
}

}  // extern "C"

namespace platform {

std::vector<Command> commands() {
    std::vector<const platform::CommandEntry *> entries;
    entries.reserve(platform::st().commands.size());
    for (const auto &[name, entry] : platform::st().commands) entries.push_back(&entry);
    std::sort(entries.begin(), entries.end(),
              [](const auto *a, const auto *b) { return a->seq < b->seq; });
    std::vector<Command> out;
    out.reserve(entries.size());
    for (const auto *e : entries) out.push_back(e->cmd);
    return out;
}

bool run_command(const std::string &name, const std::vector<int> &args, std::string *out, int *rv) {
    auto it = platform::st().commands.find(name);
    if (it == platform::st().commands.end()) return false;
    int a[8] = {};
    for (size_t i = 0; i < args.size() && i < 8; i++) a[i] = args[i];
    // Copy: the handler may register or drop commands while it runs.
    const platform::CommandEntry entry = it->second;
    int result = 0;
    // A command is a callback like any other: its writes are saved when it returns.
    platform::st().callback_depth++;
    std::string text =
        capture_stdout([&] { result = call_handler(entry.handler, entry.cmd.nargs, a); });
    platform::st().callback_depth--;
    if (platform::st().callback_depth == 0) platform::flush_dbs();
    if (out != nullptr) *out = std::move(text);
    if (rv != nullptr) *rv = result;
    return true;
}

void set_ssat_init_result(int rv) {
    platform::st().ssat_init_result = rv;
}

}  // namespace platform
