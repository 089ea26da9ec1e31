// dpm-host: loads the data-plane management module and plays the rest of the
// unit around it from scenario scripts or an interactive shell.
//
// Exit status: 0 every expectation held; 1 the first that did not; 2 a script
// error (or a store that cannot be used); 3 changes this process made were not
// acknowledged by the Redis server (they are named on standard error); any
// other status is the module's own (it ends the process with 77 on a database
// session that cannot be resumed).
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "host.h"
#include "shell.h"

namespace {

volatile sig_atomic_t g_stop = 0;

constexpr int kFailed = 1;
constexpr int kScriptError = 2;
constexpr int kNotAcknowledged = 3;

void usage(std::ostream &os) {
    os << "usage: dpm-host [STORE] [--log PATH|-] [--module PATH] [--pictures DIR] [--oracle] "
          "SCRIPT...\n"
          "       dpm-host [STORE] [--log PATH|-] [--module PATH] [--pictures DIR] --shell\n"
          "       dpm-host [STORE] ... --serve [SCRIPT...]   the scripts, then the loop until "
          "SIGTERM\n"
          "STORE: --db PATH (embedded store kept in a file) or\n"
          "       --redis ADDRESS [--member N] (a Redis server; N: this member's own LOCAL_DB\n"
          "       and TOPO_DB on a server shared by a unit, device id N)\n"
          "       ADDRESS: HOST:PORT, unix:PATH, redis://[USER[:PASSWORD]@]HOST:PORT/,\n"
          "       unix:///PATH; the password also from --redis-password-file FILE or\n"
          "       DPM_REDIS_PASSWORD; --redis-timeout DURATION (one reply, default 5s);\n"
          "       --redis-stream-max N (events the server keeps, default 100000)\n";
}

int run_script(host::Host &h, const std::string &path) {
    std::ifstream in(path);
    if (!in) {
        std::cerr << path << ": cannot open the script\n";
        return kScriptError;
    }
    host::StatementReader reader;
    std::string line;
    int lineno = 0;
    auto where = [&](int l) { return path + ":" + std::to_string(l); };
    try {
        while (std::getline(in, line)) {
            ++lineno;
            try {
                if (!reader.feed(line, lineno)) continue;
            } catch (const host::ScriptError &e) {
                throw host::ScriptError(where(lineno) + ": " + e.what());
            }
            int first = reader.first_line();
            try {
                h.execute(reader.take(), where(first));
            } catch (const host::ScriptError &e) {
                throw host::ScriptError(where(first) + ": " + e.what());
            } catch (const host::ExpectFailure &e) {
                throw host::ExpectFailure(where(first) + ": " + e.what());
            }
        }
        if (reader.open()) {
            throw host::ScriptError(where(reader.first_line()) +
                                    ": the record's braces are not closed by the end of the file");
        }
        try {
            h.end_of_script();
        } catch (const host::ExpectFailure &e) {
            throw host::ExpectFailure(where(lineno) + ": " + e.what());
        }
    } catch (const host::ScriptError &e) {
        std::cout << std::flush;
        std::cerr << e.what() << std::endl;
        return kScriptError;
    } catch (const host::ExpectFailure &e) {
        std::cout << std::flush;
        std::cerr << e.what() << std::endl;
        return kFailed;
    } catch (const std::exception &e) {
        std::cout << std::flush;
        std::cerr << where(lineno) << ": " << e.what() << std::endl;
        return kScriptError;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    host::Options opt;
    bool shell = false;
    bool serve = false;  // after the scripts, run the loop until SIGTERM
    std::vector<std::string> scripts;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *name) -> std::string {
            std::string prefix = std::string(name) + "=";
            if (a.rfind(prefix, 0) == 0) return a.substr(prefix.size());
            if (i + 1 >= argc) {
                std::cerr << "dpm-host: " << name << " needs a value\n";
                usage(std::cerr);
                exit(kScriptError);
            }
            return argv[++i];
        };
        if (a == "--shell") {
            shell = true;
        } else if (a == "--serve") {
            serve = true;
        } else if (a == "--db" || a.rfind("--db=", 0) == 0) {
            opt.db_path = value("--db");
        } else if (a == "--log" || a.rfind("--log=", 0) == 0) {
            opt.log_path = value("--log");
        } else if (a == "--module" || a.rfind("--module=", 0) == 0) {
            opt.module_path = value("--module");
        } else if (a == "--pictures" || a.rfind("--pictures=", 0) == 0) {
            opt.pictures_dir = value("--pictures");
        } else if (a == "--redis" || a.rfind("--redis=", 0) == 0) {
            opt.redis = value("--redis");
        } else if (a == "--redis-password-file" || a.rfind("--redis-password-file=", 0) == 0) {
            opt.redis_password_file = value("--redis-password-file");
        } else if (a == "--redis-timeout" || a.rfind("--redis-timeout=", 0) == 0) {
            std::string v = value("--redis-timeout");
            try {
                opt.redis_timeout_ms = static_cast<int>(host::parse_duration_us(v) / 1000);
            } catch (const std::exception &) {
                opt.redis_timeout_ms = 0;
            }
            if (opt.redis_timeout_ms < 1 || opt.redis_timeout_ms > 3600000) {
                std::cerr
                    << "dpm-host: --redis-timeout takes a duration of 1ms..1h (e.g. 500ms, 5s)\n";
                return kScriptError;
            }
        } else if (a == "--redis-stream-max" || a.rfind("--redis-stream-max=", 0) == 0) {
            opt.redis_stream_max = std::strtol(value("--redis-stream-max").c_str(), nullptr, 10);
            if (opt.redis_stream_max < 100) {
                std::cerr
                    << "dpm-host: --redis-stream-max takes a number of events, at least 100\n";
                return kScriptError;
            }
        } else if (a == "--member" || a.rfind("--member=", 0) == 0) {
            opt.member = static_cast<int>(std::strtol(value("--member").c_str(), nullptr, 10));
            if (opt.member < 1 || opt.member > 32) {
                std::cerr << "dpm-host: --member takes a device id 1..32\n";
                return kScriptError;
            }
        } else if (a == "--oracle") {
            opt.oracle = true;
        } else if (a == "--help" || a == "-h") {
            usage(std::cout);
            return 0;
        } else if (a.size() > 1 && a[0] == '-' && a != "-") {
            std::cerr << "dpm-host: unknown option " << a << "\n";
            usage(std::cerr);
            return kScriptError;
        } else {
            scripts.push_back(a);
        }
    }
    if (!opt.redis.empty() && !opt.db_path.empty()) {
        std::cerr << "dpm-host: --db and --redis are two different stores; choose one\n";
        return kScriptError;
    }
    if (shell ? !scripts.empty() || serve : scripts.empty() && !serve) {
        usage(std::cerr);
        return kScriptError;
    }

    try {
        host::Host h(opt);
        if (shell) return host::run_shell(h);
        for (const auto &s : scripts) {
            int rc = run_script(h, s);
            if (rc != 0) return rc;
        }
        if (serve) {
            std::signal(SIGTERM, [](int) { g_stop = 1; });
            std::signal(SIGINT, [](int) { g_stop = 1; });
            std::cout << "serving" << std::endl;
            h.serve(g_stop);
        }
        // Honest to the end: 0 only when the server acknowledged every change.
        const std::vector<std::string> lost = platform::db_finish(3 * opt.redis_timeout_ms);
        if (!lost.empty()) {
            std::cerr << "dpm-host: the Redis server did not acknowledge " << lost.size()
                      << " change(s) of this process:\n";
            size_t shown = 0;
            for (const auto &l : lost) {
                if (++shown > 20) {
                    std::cerr << "  ...\n";
                    break;
                }
                std::cerr << "  " << l << "\n";
            }
            return kNotAcknowledged;
        }
    } catch (const host::ExpectFailure &e) {
        std::cerr << "dpm-host: " << e.what() << std::endl;
        return kFailed;
    } catch (const std::exception &e) {
        std::cerr << "dpm-host: " << e.what() << std::endl;
        return kScriptError;
    }
    return 0;
}
