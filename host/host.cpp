// Scenario commands (see host.h). Each action runs to completion, then the
// callback loop runs until nothing is pending, then the log lines and the
// output of the action are kept for the expectations that follow it.
#include "host.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "exit_watch.h"
#include "output_capture.h"
#include "record_text.h"

namespace host {

// ---- set-up ---------------------------------------------------------------------

Host::Host(const Options &opt) : oracle_(opt.oracle), pictures_dir_(opt.pictures_dir) {
    scratch_.create();
    g_watch = ExitWatch{};
    g_watch.scratch = scratch_.path();
    arm_exit_watch();
    setenv("UDP_DPM_ROOT", scratch_.path().c_str(), 1);

    loader_.set_path(opt.module_path.empty() ? DPM_MODULE_PATH : opt.module_path);

    std::string log = opt.log_path.empty() ? scratch_.path() + "/udp_dpm.log" : opt.log_path;
    if (log == "-") {
        platform::set_log_fd(STDERR_FILENO);
    } else {
        log_fd_ = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (log_fd_ < 0) throw std::runtime_error("cannot open the log file " + log);
        platform::set_log_fd(log_fd_);
    }
    if (!opt.db_path.empty() && platform::db_open_file(opt.db_path) != 0) {
        throw std::runtime_error("cannot open the database file " + opt.db_path);
    }
    // Nothing here reads the module's writes back: a serving process keeps none.
    platform::keep_module_writes(false);
    if (!opt.redis.empty()) {
        std::string error;
        platform::RedisOptions ro;
        ro.address = opt.redis;
        ro.password_file = opt.redis_password_file;
        ro.timeout_ms = opt.redis_timeout_ms;
        ro.stream_max = opt.redis_stream_max;
        if (platform::db_use_redis(ro, &error) != 0) {
            throw std::runtime_error("cannot use the Redis server " + opt.redis + ": " + error);
        }
        keep_record_text();  // beside the bytes, for people reading the store
    }
    if (opt.member > 0) {
        platform::db_member(opt.member);
        devid_ = static_cast<uint32_t>(opt.member);
        std::string error;
        if (platform::db_claim_member(opt.member, &error) != 0) throw std::runtime_error(error);
    }
}

Host::~Host() {
    g_watch.finished = true;
    platform::set_log_fd(-1);
    if (log_fd_ >= 0) close(log_fd_);
    scratch_.remove();
    g_watch.scratch.clear();
}

// ---- statements -----------------------------------------------------------------

void Host::execute(const std::string &statement, const std::string &where) {
    Cursor c(statement);
    if (c.at_end()) return;

    // An awaited exit belongs to exactly this statement, whatever it is.
    std::optional<int> awaited = std::exchange(g_watch.next_status, std::nullopt);
    g_watch.running = where;
    g_watch.awaited = awaited.has_value();
    g_watch.status = awaited.value_or(0);
    struct Disarm {
        ~Disarm() {
            g_watch.awaited = false;
            g_watch.running.clear();
        }
    } disarm;

    std::string verb = c.word("command");
    const Command *cmd = find_command(verb);
    if (cmd != nullptr && !cmd->action) {
        (this->*cmd->run)(c);
    } else {
        run_action(cmd, verb, c);
    }
    if (awaited) {
        throw ExpectFailure("expected exit " + std::to_string(*awaited) +
                            ", got no exit (the command returned)");
    }
}

void Host::end_of_script() {
    if (auto awaited = std::exchange(g_watch.next_status, std::nullopt)) {
        throw ExpectFailure("expected exit " + std::to_string(*awaited) +
                            ", got the end of the script");
    }
}

void Host::run_action(const Command *cmd, const std::string &verb, Cursor &c) {
    last_output_.clear();
    last_log_.clear();
    // Lines the module logged outside any action (none expected) are not the
    // next action's.
    platform::take_log();
    struct KeepLog {
        Host *h;
        ~KeepLog() {
            auto lines = platform::take_log();
            h->last_log_.insert(h->last_log_.end(), lines.begin(), lines.end());
        }
    } keep{this};
    struct KeepOutput {
        Host *h;
        bool on = capture_begin();
        ~KeepOutput() {
            if (!on) return;
            h->last_output_ = capture_end();
            std::cout << h->last_output_ << std::flush;
        }
    };

    {
        const KeepOutput output{this};
        if (cmd == nullptr) {
            throw ScriptError("unknown command '" + verb + "' (help lists the commands)");
        }
        (this->*cmd->run)(c);
        settle();
        flush_module_stdout();
    }
    check_oracle();
}

void Host::check_oracle() {
    if (!oracle_ || !loader_.loaded()) return;
    if (loader_.oracle() == nullptr) {
        throw ScriptError("--oracle: the module " + loader_.path() + " has no consistency oracle");
    }
    std::string report(8192, '\0');
    // Bit 0: the caches' own structure; bit 1: TOPO_DB against the caches.
    int n = loader_.oracle()(3, report.data(), report.size());
    if (n == 0) return;
    report.resize(std::strlen(report.c_str()));
    throw ExpectFailure("the oracle found " + std::to_string(n) +
                        " difference(s) between TOPO_DB and the module:\n" + report);
}

void Host::emit(const std::string &text) {
    if (!capture_active()) last_output_ += text;  // else the capture keeps it
    pass_through(text);
}

}  // namespace host
