// dpm-unit: a unit described once in a file; run it, break it, check it, draw it.
// Its commands are the table commands() at the end, each named once there.
//
// Exit status: 0 all held; 1 the check found violations (or a phase did not
// settle); 2 a usage or unit-file error; 3 a process of the unit failed.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "chaos.h"
#include "picture.h"
#include "platform_ctl.h"
#include "supervisor.h"

namespace {

volatile sig_atomic_t g_stop = 0;
constexpr int kViolations = 1, kUsage = 2, kFailed = 3;

struct Args {
    std::string command, file;
    std::string dir, redis, host = DPM_HOST_PATH;
    int level = 1, timeout = 30, faults = 0;
    double seconds = -1;
    long long seed = -1;
    bool once = false;
    std::string kinds, pictures;
};

// The commands, each once: its name, what follows it in the usage, whether it
// takes a file, and what it does.
struct UnitCommand {
    const char *name;
    const char *usage;
    bool takes_file;
    int (*run)(const Args &);
};
const std::vector<UnitCommand> &commands();

const UnitCommand *find_command(const std::string &name) {
    for (const auto &c : commands()) {
        if (name == c.name) return &c;
    }
    return nullptr;
}

void usage(std::ostream &os) {
    std::string text;
    for (const auto &c : commands()) {
        text += std::string(text.empty() ? "usage: " : "       ") + "dpm-unit " + c.name + " " +
                c.usage + "\n";
    }
    os << text +
              "ADDR: HOST:PORT or unix:PATH. Without --redis, run and chaos start a private\n"
              "redis-server in DIR (default " +
              unit::default_base_dir() +
              "/NAME, mode 0700); check and picture use\n"
              "the unit started last.\n";
}

Args parse(int argc, char **argv) {
    Args a;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string w = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw std::invalid_argument(w + " needs a value");
            return argv[++i];
        };
        auto number = [&]() -> long long {
            std::string v = value();
            size_t used = 0;
            long long n = std::stoll(v, &used);
            if (used != v.size() || n < 0) throw std::invalid_argument(w + " takes a number");
            return n;
        };
        if (w == "--dir")
            a.dir = value();
        else if (w == "--redis")
            a.redis = value();
        else if (w == "--host")
            a.host = value();
        else if (w == "--level")
            a.level = static_cast<int>(number());
        else if (w == "--timeout")
            a.timeout = static_cast<int>(number());
        else if (w == "--faults")
            a.faults = static_cast<int>(number());
        else if (w == "--seconds")
            a.seconds = static_cast<double>(number());
        else if (w == "--seed")
            a.seed = number();
        else if (w == "--kinds")
            a.kinds = value();
        else if (w == "--pictures")
            a.pictures = value();
        else if (w == "--once")
            a.once = true;
        else if (w == "-h" || w == "--help")
            a.command = "help";
        else if (w.size() > 1 && w[0] == '-')
            throw std::invalid_argument("unknown option " + w);
        else
            words.push_back(w);
    }
    if (a.command == "help") return a;
    if (words.empty()) throw std::invalid_argument("no command");
    a.command = words[0];
    const UnitCommand *cmd = find_command(a.command);
    bool wants_file = cmd == nullptr || cmd->takes_file;
    if (words.size() != (wants_file ? 2U : 1U))
        throw std::invalid_argument(a.command +
                                    (wants_file ? " takes one file" : " takes no file"));
    if (wants_file) a.file = words[1];
    return a;
}

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The address of the unit started last (check, picture).
std::string resolve_address(const Args &a) {
    if (!a.redis.empty()) return a.redis;
    if (!a.dir.empty()) return "unix:" + a.dir + "/redis.sock";
    std::string addr = read_text(unit::default_base_dir() + "/current");
    while (!addr.empty() && addr.back() == '\n') addr.pop_back();
    if (addr.empty())
        throw std::runtime_error("no unit runs (start one with dpm-unit run, or give --redis)");
    return addr;
}

// The members of a running unit with their process states, from what dpm-unit
// keeps on its server; without that, every member that has link records.
std::vector<unit::MemberInfo> members_in(const unit::UnitState::View &view, std::string *name,
                                         std::map<int, std::string> *states) {
    std::vector<unit::MemberInfo> infos;
    if (view.found) {
        unit::Unit u = unit::parse_unit(view.file, "(the running unit)");
        *name = u.name;
        for (const auto &m : u.members) {
            infos.push_back({m.id, unit::member_present(view, m.id), m.ring_cut});
            (*states)[m.id] = unit::process_state(view, m.id);
        }
        return infos;
    }
    for (int id = 1; id <= 15; ++id) {
        platform::db_view(id);
        if (platform::db_records(3, "p_dev.vsl_local_link").empty()) continue;
        bool fiap = !platform::db_records(3, "p_dev.dtm_fiap_route_info").empty();
        infos.push_back({id, true, fiap ? 1 : 0});
        (*states)[id] = "running";
    }
    platform::db_view(0);
    return infos;
}

std::vector<unit::MemberInfo> members_of(const std::string &address, std::string *name,
                                         std::map<int, std::string> *states) {
    std::string error;
    auto st = unit::UnitState::connect(address, &error);
    if (!st) throw std::runtime_error("cannot reach " + address + ": " + error);
    if (platform::db_use_redis(address, &error) != 0)
        throw std::runtime_error("cannot use " + address + ": " + error);
    *name = address;
    return members_in(st->read(), name, states);
}

// The unit as its records say, each member with its process state.
void draw(const std::string &name, const std::vector<unit::MemberInfo> &infos,
          std::map<int, std::string> &states, const std::string &file, const std::string &what) {
    std::vector<host::MemberView> views;
    std::string title = "unit " + name + (what.empty() ? "" : ", " + what);
    for (const auto &m : infos) {
        platform::db_view(m.id);
        host::MemberView v = host::local_member_view(static_cast<uint32_t>(m.id));
        const std::string &state = states[m.id];
        v.process = state == "running"       ? host::ProcessState::running
                    : state == "stopped"     ? host::ProcessState::stopped
                    : state == "unreachable" ? host::ProcessState::unreachable
                                             : host::ProcessState::unknown;
        views.push_back(std::move(v));
    }
    platform::db_view(0);
    std::filesystem::path path(file);
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    host::write_picture(host::unit_dot(views, title), file);
}

int do_check(const Args &a) {
    std::string name;
    std::map<int, std::string> states;
    auto infos = members_of(resolve_address(a), &name, &states);
    auto v = unit::check_unit(unit::read_unit_records(infos));
    for (const auto &x : v) std::cout << unit::violation_text(x);
    std::cout << "unit " << name << ":";
    for (const auto &[id, s] : states) std::cout << " member " << id << " " << s << ";";
    std::cout << (v.empty() ? " the check holds\n"
                            : " " + std::to_string(v.size()) + " violation(s)\n");
    return v.empty() ? 0 : kViolations;
}

int do_picture(const Args &a) {
    std::string name;
    std::map<int, std::string> states;
    auto infos = members_of(resolve_address(a), &name, &states);
    draw(name, infos, states, a.file, "");
    std::cout << "picture: " << std::filesystem::absolute(a.file).lexically_normal().string()
              << "\n";
    return 0;
}

unit::Supervisor::Options supervisor_options(const Args &a, const unit::Unit &u) {
    unit::Supervisor::Options o;
    std::string base = unit::default_base_dir();
    if (a.dir.empty()) unit::private_dir(base);
    o.dir = a.dir.empty() ? base + "/" + u.name : a.dir;
    o.redis = a.redis;
    o.host = a.host;
    o.log_level = a.level;
    o.settle_timeout_ms = a.timeout * 1000;
    o.out = &std::cout;
    o.stop = &g_stop;
    return o;
}

void remember(const unit::Supervisor &s) {
    std::string base = unit::default_base_dir();
    unit::private_dir(base);
    std::ofstream(base + "/current", std::ios::trunc) << s.address() << "\n";
}

int do_run(const Args &a, const unit::Unit &u, const std::string &text) {
    unit::Supervisor s(u, text, supervisor_options(a, u));
    s.start();
    remember(s);
    unit::Report report;
    int phase = 0;
    std::string error;
    auto state = unit::UnitState::connect(s.address(), &error);
    if (!state) throw std::runtime_error("cannot reach " + s.address() + ": " + error);
    auto settle = [&](const std::string &what, std::optional<int> restarted) {
        unit::Settled r = s.settle(restarted);
        const std::string kind = phase == 0 ? "up" : "phase " + std::to_string(phase);
        report.add(kind, kind + " (" + what + ")", r);
        std::cout << "== " << kind << ": " << what << ": " << unit::Report::line(r) << std::endl;
        for (const auto &v : r.violations) std::cout << unit::violation_text(v);
        if (!a.pictures.empty()) {
            std::string name;
            std::map<int, std::string> states;
            auto infos = members_in(state->read(), &name, &states);
            char file[32];
            std::snprintf(file, sizeof file, "/%02d-%s.svg", phase, phase == 0 ? "up" : "phase");
            draw(name, infos, states, a.pictures + file, kind + ": " + what);
            std::cout << "   picture: " << a.pictures + file << std::endl;
        }
        ++phase;
    };
    settle("the unit comes up", std::nullopt);
    for (const auto &p : u.phases) {
        if (g_stop != 0) break;
        // Played once (tests), the phases after one that did not settle start
        // from a broken unit and would each wait out the timeout for nothing.
        if (a.once && report.unsettled() != 0) {
            std::cout << "== stopped: the phase before did not settle" << std::endl;
            break;
        }
        s.mark();
        std::optional<int> restarted;
        for (const auto &f : p.faults) {
            s.inject(f);
            if (f.kind == unit::Fault::MemberRestart || f.kind == unit::Fault::MemberStart)
                restarted = f.member;
        }
        settle(p.name.empty() ? p.faults.front().text : p.name, restarted);
    }
    std::cout << report.text() << std::flush;
    if (!a.once) {
        std::cout << "the unit runs on " << s.address()
                  << " (dpm-unit check, dpm-unit picture FILE); Ctrl-C stops it" << std::endl;
        while (g_stop == 0) s.turn(200);
    }
    bool failed = s.failed();
    s.stop_all();
    if (failed) return kFailed;
    return report.unsettled() == 0 ? 0 : kViolations;
}

int do_chaos(const Args &a, const unit::Unit &u, const std::string &text) {
    if (a.seconds < 0 || a.seed < 0)
        throw std::invalid_argument("chaos needs --seconds and --seed");
    unit::ChaosOptions o;
    o.seconds = a.seconds;
    o.seed = static_cast<uint64_t>(a.seed);
    o.max_faults = a.faults;
    if (!a.kinds.empty()) {
        o.kinds.clear();
        std::stringstream ss(a.kinds);
        for (std::string k; std::getline(ss, k, ',');) {
            if (unit::chaos_kinds().count(k) == 0)
                throw std::invalid_argument("unknown fault kind '" + k + "'");
            o.kinds.insert(k);
        }
    }
    unit::Supervisor s(u, text, supervisor_options(a, u));
    s.start();
    remember(s);
    unit::Settled up = s.settle();
    std::cout << "== the unit comes up: " << unit::Report::line(up) << std::endl;
    if (!up.held) {
        for (const auto &v : up.violations) std::cout << unit::violation_text(v);
        return kViolations;
    }
    unit::Report r = unit::run_chaos(s, u, o, std::cout);
    std::cout << "chaos on " << u.name << ", seed " << o.seed << ":\n" << r.text();
    bool failed = s.failed();
    s.stop_all();
    if (failed) return kFailed;
    return r.unsettled() == 0 ? 0 : kViolations;
}

int do_validate(const Args &, const unit::Unit &u, const std::string &) {
    size_t modids = 0, cards = 0;
    for (const auto &m : u.members) {
        cards += m.cards.size();
        for (const auto &c : m.cards) modids += c.modids.size();
    }
    std::cout << "unit " << u.name << ": " << u.members.size() << " members, " << cards
              << " cards, " << modids << " module ids, " << u.links.size() << " links, "
              << u.phases.size() << " phases\n";
    return 0;
}

// A command on a unit file: the unit is read first (a file error is a usage
// error).
template <int (*fn)(const Args &, const unit::Unit &, const std::string &)>
int on_unit_file(const Args &a) {
    unit::Unit u = unit::load_unit(a.file);
    return fn(a, u, read_text(a.file));
}

const std::vector<UnitCommand> &commands() {
    static const std::vector<UnitCommand> table = {
        // bring the unit up, play its phases, keep it running
        {"run",
         "UNITFILE [--once] [--pictures DIR] [--dir DIR] [--redis ADDR]\n"
         "                [--host DPM-HOST] [--level N] [--timeout SECONDS]",
         true, on_unit_file<do_run>},
        // judge the running unit from its records
        {"check", "[--redis ADDR | --dir DIR]", false, do_check},
        // random faults from a seed, the check after each, convergence times
        {"chaos",
         "UNITFILE --seconds S --seed N [--faults N]\n"
         "                [--kinds link,card,member,responder,hop,redis] [run's options]",
         true, on_unit_file<do_chaos>},
        // draw the running unit
        {"picture", "FILE.svg|.png|.dot [--redis ADDR | --dir DIR]", true, do_picture},
        // read the file and say what it describes
        {"validate", "UNITFILE", true, on_unit_file<do_validate>},
    };
    return table;
}

}  // namespace

int main(int argc, char **argv) {
    Args a;
    try {
        a = parse(argc, argv);
    } catch (const std::exception &e) {
        std::cerr << "dpm-unit: " << e.what() << "\n";
        usage(std::cerr);
        return kUsage;
    }
    if (a.command == "help") {
        usage(std::cout);
        return 0;
    }
    std::signal(SIGINT, [](int) { g_stop = 1; });
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    try {
        const UnitCommand *cmd = find_command(a.command);
        if (cmd == nullptr) {
            std::cerr << "dpm-unit: unknown command " << a.command << "\n";
            usage(std::cerr);
            return kUsage;
        }
        return cmd->run(a);
    } catch (const unit::FileError &e) {
        std::cerr << e.what() << "\n";
        return kUsage;
    } catch (const std::invalid_argument &e) {
        std::cerr << "dpm-unit: " << e.what() << "\n";
        return kUsage;
    } catch (const std::exception &e) {
        std::cerr << "dpm-unit: " << e.what() << "\n";
        return kFailed;
    }
}
