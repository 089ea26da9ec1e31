// The processes of a running unit: a private redis-server, one dpm-host per
// member, the hardware responder. Each is a child of dpm-unit, started with
// fork and exec, told to end when dpm-unit ends (so a killed dpm-unit leaves
// nothing behind), and stopped by its PID.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace unit {

struct Child {
    pid_t pid = 0;
    std::string name;  // "member 2", "responder", "redis-server"
};

// Start `argv` with its standard output and error appended to `out_path`.
// Throws std::runtime_error when it cannot fork.
Child spawn(const std::string &name, const std::vector<std::string> &argv,
            const std::string &out_path);

// A child that ended: its PID and what wait() said, or pid 0 when none did.
struct Ended {
    pid_t pid = 0;
    int status = 0;
};
Ended reap_one();

// Signal the child, then wait until it has ended (bounded: after `grace_ms`
// it is killed). Returns its wait status.
int stop_child(pid_t pid, int sig, int grace_ms);

// "exited with status 77", "was killed by signal 9".
std::string status_text(int status);

// A directory of the user's own with mode 0700: created when missing;
// refused (std::runtime_error) when it belongs to someone else or others may
// enter it.
void private_dir(const std::string &path);

// The private redis-server of a unit in `dir`, on a unix socket only
// (unix:DIR/redis.sock, mode 0700). Waits (bounded) until it answers.
Child start_redis(const std::string &dir, std::string *address);

// Where dpm-unit keeps its units by default: /tmp/dpm-unit-UID.
std::string default_base_dir();

}  // namespace unit
