// Scenario commands (see host.h). Each action runs to completion, then the
// callback loop runs until nothing is pending, then the log lines and the
// output of the action are kept for the expectations that follow it.
#include "host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <cstring>
#include <map>
#include <memory>

#include <google/protobuf/util/message_differencer.h>

#include "picture.h"
#include "records.h"

namespace host {

namespace pb = google::protobuf;

namespace {

// One command must not keep the loop busy for ever: a module that keeps
// requeueing work would otherwise hang the run instead of failing it.
constexpr size_t kMaxCallbacks = 10'000'000;

const char *const kRingCutKey = "u_cluster/dpm/dev_topo/kel_ring_cut_type";

// The process can end inside a module callback (exit 77 on a lost session).
// This watch, read by the on_exit handler, knows which statement was running,
// whether that end was expected, and which scratch directory to remove.
struct ExitWatch {
    std::string scratch;
    std::string running;  // "file:line" of the statement being executed
    bool awaited = false;
    int status = 0;
    std::optional<int> next_status;  // set by "expect exit", taken by the next statement
    bool finished = false;           // the host ends on its own
};
ExitWatch g_watch;

// Everything printed while an action runs, by the module from any callback
// (timers included) and by the host's own reports, is that action's output:
// standard output goes to a scratch file for the length of the action and is
// read back afterwards, kept for the expectations and passed on.
struct StdoutCapture {
    FILE *file = nullptr;
    int saved = -1;
};
StdoutCapture g_capture;

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

std::string db_name(int db) {
    switch (db) {
        case 0:
            return "ASIC_DB";
        case 3:
            return "LOCAL_DB";
        case 8:
            return "UDP_DB";
        case 14:
            return "TOPO_DB";
        default:
            return "db " + std::to_string(db);
    }
}

// A parsed record argument, with its wire form for the stand-in.
struct RecordArg {
    std::string type;
    const pb::Descriptor *desc;
    std::unique_ptr<pb::Message> msg;
    std::string packed;
};

RecordArg record_arg(Cursor &c) {
    RecordArg r;
    r.type = c.word("record type");
    r.desc = record_type(r.type);
    r.msg = parse_record(r.desc, c.record("record"));
    c.end();
    if (!r.msg->SerializeToString(&r.packed)) {
        throw ScriptError("cannot pack the " + r.type + " record");
    }
    return r;
}

std::string stored_text(const platform::StoredRecord &s) {
    const pb::Descriptor *d = pb::DescriptorPool::generated_pool()->FindMessageTypeByName(s.type);
    std::unique_ptr<pb::Message> m = d != nullptr ? unpack_record(d, s.packed) : nullptr;
    if (m == nullptr) {
        return s.type + " <" + std::to_string(s.packed.size()) + " bytes that do not decode>";
    }
    std::string t = short_text(*m);
    return s.type + (t.empty() ? " { }" : " { " + t + " }");
}

int32_t int_arg(Cursor &c, const char *what) {
    return static_cast<int32_t>(parse_int(c.word(what), INT32_MIN, INT32_MAX, what));
}

uint32_t uint_arg(Cursor &c, const char *what) {
    return static_cast<uint32_t>(parse_int(c.word(what), 0, UINT32_MAX, what));
}

// "N" or "fail" (the lookup or read fails).
std::optional<uint32_t> value_or_fail(Cursor &c, const char *what) {
    std::string w = c.word(what);
    if (w == "fail") return std::nullopt;
    return static_cast<uint32_t>(parse_int(w, 0, UINT32_MAX, what));
}

// The previous output in a failure message: one line quoted, several indented.
std::string shown_output(std::string out) {
    while (!out.empty() && out.back() == '\n') out.pop_back();
    if (out.empty()) return "no output";
    if (out.find('\n') == std::string::npos) return "\"" + out + "\"";
    std::string block;
    size_t b = 0;
    while (b <= out.size()) {
        size_t e = out.find('\n', b);
        if (e == std::string::npos) e = out.size();
        block += "\n  | " + out.substr(b, e - b);
        b = e + 1;
    }
    return "output:" + block;
}

// Output of the module's own printf calls must land before ours.
void flush_module_stdout() {
    fflush(stdout);
}

}  // namespace

// ---- set-up ---------------------------------------------------------------------

Host::Host(const Options &opt) : oracle_(opt.oracle), pictures_dir_(opt.pictures_dir) {
    scratch_.create();
    g_watch = ExitWatch{};
    g_watch.scratch = scratch_.path();
    static bool registered = false;
    if (!registered) {
        on_exit(on_process_exit, nullptr);
        registered = true;
    }
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
    if (verb == "expect") {
        expect(c);
    } else if (verb == "print") {
        std::cout << c.rest() << '\n' << std::flush;
    } else if (verb == "help") {
        c.end();
        std::cout << help() << std::flush;
    } else {
        run_action(verb, c);
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

void Host::run_action(const std::string &verb, Cursor &c) {
    using Handler = void (Host::*)(Cursor &);
    static const std::map<std::string, Handler> handlers = {
        {"set", &Host::do_set}, {"port", &Host::do_port},   {"fail", &Host::do_fail},
        {"db", &Host::do_db},   {"agent", &Host::do_agent}, {"card", &Host::do_card},
        {"cmd", &Host::do_cmd}, {"show", &Host::do_show},   {"picture", &Host::do_picture},
    };
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
        if (verb == "start" || verb == "restart") {
            c.end();
            do_start(verb == "restart");
        } else if (verb == "advance") {
            uint64_t us = parse_duration_us(c.word("duration"));
            c.end();
            platform::advance_us(us);
        } else if (auto it = handlers.find(verb); it != handlers.end()) {
            (this->*(it->second))(c);
        } else {
            throw ScriptError("unknown command '" + verb + "' (help lists the commands)");
        }
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

void Host::settle() {
    size_t n = 0;
    while (platform::run_one()) {
        if (++n > kMaxCallbacks) {
            throw ScriptError("the callback loop did not settle: more than " +
                              std::to_string(kMaxCallbacks) + " callbacks for one command");
        }
    }
}

void Host::emit(const std::string &text) {
    flush_module_stdout();
    if (g_capture.file == nullptr) last_output_ += text;  // else the capture keeps it
    // Debug commands often end without a newline; keep the next line apart.
    std::cout << text << (text.empty() || text.back() == '\n' ? "" : "\n") << std::flush;
}

// ---- actions --------------------------------------------------------------------

void Host::do_set(Cursor &c) {
    std::string what = c.word("setting");
    if (what == "devid") {
        devid_ = uint_arg(c, "device id");
    } else if (what == "node-type") {
        node_type_ = uint_arg(c, "node type");
    } else if (what == "ring-cut") {
        std::string w = c.word("ring-cut type or fail");
        platform::set_capacity(
            kRingCutKey, w == "fail" ? std::nullopt
                                     : std::optional<int32_t>(static_cast<int32_t>(
                                           parse_int(w, INT32_MIN, INT32_MAX, "ring-cut type"))));
    } else if (what == "cap-init") {
        if (c.word("fail") != "fail") throw ScriptError("set cap-init takes only 'fail'");
        platform::fail("libxn_cap_init", -1, -1);
    } else if (what == "ssat-init") {
        platform::set_ssat_init_result(int_arg(c, "result"));
    } else if (what == "level-file") {
        std::string file = scratch_.path() + "/etc/pktdbg/udp_dpm";
        bool quoted = c.next_is_quote();
        std::string text = c.rest();
        if (!quoted && text == "missing") {
            std::filesystem::remove(file);
        } else {
            std::ofstream out(file, std::ios::binary | std::ios::trunc);
            out << text;
            if (!out) throw ScriptError("cannot write " + file);
        }
        return;
    } else {
        throw ScriptError("unknown setting '" + what +
                          "' (devid, node-type, ring-cut, cap-init, ssat-init, level-file)");
    }
    c.end();
}

void Host::do_port(Cursor &c) {
    Position p = parse_position(c.word("port DEV/SLOT/LPORT"), 65535, "port");
    bool any = false;
    while (auto w = c.try_word()) {
        if (*w == "chip") {
            platform::set_chipid(p.dev, p.slot, p.third, value_or_fail(c, "chip id"));
        } else if (*w == "phy") {
            platform::set_phyid(p.dev, p.slot, p.third, value_or_fail(c, "physical id"));
        } else {
            throw ScriptError("expected chip or phy, found '" + *w + "'");
        }
        any = true;
    }
    c.end();
    if (!any) throw ScriptError("port needs chip N|fail and/or phy N|fail");
}

void Host::do_fail(Cursor &c) {
    std::string op = c.word("platform function");
    if (op == "clear") {
        c.end();
        platform::clear_faults();
        return;
    }
    // The stand-in takes any name; a misspelt one would silently never fail.
    // Every platform function is a symbol of the loaded platform library.
    if (dlsym(RTLD_DEFAULT, op.c_str()) == nullptr) {
        throw ScriptError("unknown platform function '" + op + "'");
    }
    int db = -1, count = 1, rv = -1, skip = 0;
    while (auto w = c.try_word()) {
        if (*w == "db") {
            db = parse_db(c.word("database"));
        } else if (*w == "count") {
            std::string n = c.word("count");
            count = n == "always" ? -1 : static_cast<int>(parse_int(n, -1, INT32_MAX, "count"));
        } else if (*w == "rv") {
            rv = int_arg(c, "failure result");
        } else if (*w == "after") {
            skip = static_cast<int>(parse_int(c.word("calls"), 0, INT32_MAX, "after"));
        } else {
            throw ScriptError("expected db, count, rv or after, found '" + *w + "'");
        }
    }
    c.end();
    platform::fail(op, db, count, rv, skip);
}

void Host::do_start(bool restart) {
    // A second start of a loaded instance calls its entry again, as a host
    // that repeats the call would; restart is a new process.
    if (restart) platform::drop_instance();
    if (restart || !loader_.loaded()) loader_.load_fresh(scratch_.path());
    ce_dpm_dlib_arg arg{platform::host_handle(), 0, node_type_, devid_};
    int rv = loader_.call_entry(&arg);
    started_ = true;
    emit("start: rv " + std::to_string(rv) + "\n");
}

void Host::do_db(Cursor &c) {
    std::string op = c.word("db operation");
    if (op == "disconnect" || op == "reconnect") {
        int db = parse_db(c.word("database"));
        if (op == "disconnect") {
            c.end();
            platform::db_disconnect(db);
        } else {
            int type = int_arg(c, "reconnect type");
            c.end();
            platform::db_reconnect(db, type);
        }
        return;
    }
    if (op != "set" && op != "hmset" && op != "del") {
        throw ScriptError("unknown db operation '" + op +
                          "' (set, hmset, del, disconnect, reconnect)");
    }
    int db = parse_db(c.word("database"));
    RecordArg r = record_arg(c);
    int rv = op == "set"     ? platform::db_set(db, r.type, r.packed)
             : op == "hmset" ? platform::db_hmset(db, r.type, r.packed)
                             : platform::db_del(db, r.type, r.packed);
    if (rv != 0)
        throw ScriptError("the store refused the " + r.type + " record (rv " + std::to_string(rv) +
                          ")");
}

void Host::do_agent(Cursor &c) {
    std::string op = c.word("agent operation");
    if (op != "set" && op != "del") throw ScriptError("agent takes set or del, not '" + op + "'");
    RecordArg r = record_arg(c);
    int rv =
        op == "set" ? platform::agent_set(r.type, r.packed) : platform::agent_del(r.type, r.packed);
    if (rv != 0)
        throw ScriptError("the agent refused the " + r.type + " record (rv " + std::to_string(rv) +
                          ")");
}

void Host::do_card(Cursor &c) {
    std::string op = c.word("card operation");
    if (op != "add" && op != "del" && op != "online") {
        throw ScriptError("card takes add, del or online, not '" + op + "'");
    }
    Position p = parse_position(c.word("card DEV/SLOT/SSLOT"), 31, "card");
    if (op == "online") {
        std::string yn = c.word("yes or no");
        if (yn != "yes" && yn != "no")
            throw ScriptError("card online takes yes or no, not '" + yn + "'");
        c.end();
        platform::set_card_online(p.dev, p.slot, p.third, yn == "yes");
        return;
    }
    c.end();
    if (op == "add") {
        platform::card_add(card_gslot(p));
    } else {
        platform::card_del(card_gslot(p));
    }
}

void Host::do_cmd(Cursor &c) {
    std::string name = c.word("debug command name");
    std::vector<int> args;
    while (!c.at_end()) args.push_back(int_arg(c, "command argument"));
    auto cmds = platform::commands();
    auto it = std::find_if(cmds.begin(), cmds.end(), [&](const auto &k) { return k.name == name; });
    if (it == cmds.end()) {
        throw ScriptError("no debug command '" + name + "'" +
                          (started_ ? "" : " (the module is not started)"));
    }
    if (static_cast<int>(args.size()) > it->nargs) {
        throw ScriptError(name + " takes " + std::to_string(it->nargs) + " number" +
                          (it->nargs == 1 ? "" : "s") + " (" + it->desc + ")");
    }
    std::string out;
    flush_module_stdout();
    if (!platform::run_command(name, args, &out))
        throw ScriptError("no debug command '" + name + "'");
    emit(out);
}

void Host::do_show(Cursor &c) {
    int db = parse_db(c.word("database"));
    std::string type;
    if (auto w = c.try_word()) {
        type = *w;
        record_type(type);
    }
    c.end();
    std::string text;
    for (const auto &s : platform::db_records(db, type)) text += stored_text(s) + "\n";
    if (text.empty()) text = "(no records in " + db_name(db) + ")\n";
    emit(text);
}

// The unit as this member's databases say, drawn to a file (picture.h).
void Host::do_picture(Cursor &c) {
    std::filesystem::path path = c.word("picture file (.svg, .png or .dot)");
    std::string title = c.rest();
    if (path.is_relative() && !pictures_dir_.empty()) path = pictures_dir_ / path;
    std::error_code ec;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
    write_picture(unit_dot({local_member_view(devid_)}, title), path.string());
    emit("picture: " + std::filesystem::absolute(path).lexically_normal().string() + "\n");
}

// ---- expectations ---------------------------------------------------------------

void Host::expect(Cursor &c) {
    std::string what = c.word("expectation");
    if (what == "record" || what == "absent") {
        int db = parse_db(c.word("database"));
        RecordArg r = record_arg(c);
        auto stored = platform::db_get(db, r.type, r.packed);
        std::string want = r.type + " { " + short_text(*r.msg) + " }";
        if (what == "absent") {
            if (stored) {
                throw ExpectFailure("expected no record with the key of " + want + " in " +
                                    db_name(db) + ", got " + stored_text(*stored));
            }
            return;
        }
        if (!stored) {
            throw ExpectFailure("expected " + want + " in " + db_name(db) + ", got no record");
        }
        auto got = unpack_record(r.desc, stored->packed);
        if (got == nullptr || !pb::util::MessageDifferencer::Equals(*r.msg, *got)) {
            throw ExpectFailure("expected " + want + " in " + db_name(db) + ", got " +
                                stored_text(*stored));
        }
    } else if (what == "count") {
        int db = parse_db(c.word("database"));
        std::string type = c.word("record type");
        record_type(type);
        size_t n = static_cast<size_t>(parse_int(c.word("count"), 0, INT32_MAX, "count"));
        c.end();
        size_t got = platform::db_records(db, type).size();
        if (got != n) {
            throw ExpectFailure("expected " + std::to_string(n) + " " + type + " records in " +
                                db_name(db) + ", got " + std::to_string(got));
        }
    } else if (what == "log" || what == "no-log") {
        // "[func] TEXT" narrows the match to lines logged under that function
        // name (many of the module's lines just say "enter").
        std::string func = c.bracketed().value_or("");
        std::string text = c.rest();
        if (text.empty() && func.empty()) throw ScriptError("expect " + what + " needs a text");
        auto hit = std::find_if(last_log_.begin(), last_log_.end(), [&](const auto &l) {
            return (func.empty() || l.func == func) && l.text.find(text) != std::string::npos;
        });
        if (!func.empty()) text = "[" + func + "] " + text;
        if (what == "log" && hit == last_log_.end()) {
            std::string got = std::to_string(last_log_.size()) + " log lines";
            size_t shown = 0;
            for (const auto &l : last_log_) {
                if (++shown > 30) {
                    got += "\n  ...";
                    break;
                }
                got += "\n  [" + l.func + "] " + l.text;
            }
            throw ExpectFailure("expected a log line containing \"" + text + "\", got " + got);
        }
        if (what == "no-log" && hit != last_log_.end()) {
            throw ExpectFailure("expected no log line containing \"" + text + "\", got [" +
                                hit->func + "] " + hit->text);
        }
    } else if (what == "output" || what == "no-output") {
        std::string text = c.rest();
        if (text.empty()) throw ScriptError("expect " + what + " needs a text");
        bool found = last_output_.find(text) != std::string::npos;
        if (found != (what == "output")) {
            throw ExpectFailure(std::string("expected ") + (found ? "no " : "") +
                                "output containing \"" + text + "\", got " +
                                shown_output(last_output_));
        }
    } else if (what == "exit") {
        int status = static_cast<int>(parse_int(c.word("exit status"), 0, 255, "exit status"));
        c.end();
        g_watch.next_status = status;
    } else {
        throw ScriptError("unknown expectation '" + what +
                          "' (record, absent, count, log, no-log, output, no-output, exit)");
    }
}

// ---- help -----------------------------------------------------------------------

const std::vector<std::string> &Host::command_words() {
    static const std::vector<std::string> words = {
        "set",  "port", "fail", "start",   "restart", "advance", "db",  "agent",
        "card", "cmd",  "show", "picture", "expect",  "print",   "help"};
    return words;
}

std::vector<std::string> Host::debug_command_names() const {
    std::vector<std::string> names;
    for (const auto &k : platform::commands()) names.push_back(k.name);
    return names;
}

std::string Host::help() const {
    std::string h =
        "Scenario commands (one a line, '#' starts a comment, a record in braces may\n"
        "continue over several lines; DB is a number or ASIC_DB, LOCAL_DB, UDP_DB, TOPO_DB):\n"
        "  set devid N | set node-type N          argument block of the next start\n"
        "  set ring-cut N|fail | set cap-init fail capacity library\n"
        "  set ssat-init N                        result of the debug framework's init\n"
        "  set level-file TEXT | set level-file missing\n"
        "  port DEV/SLOT/LPORT chip N|fail [phy N|fail]\n"
        "  fail OP [db N] [count N|always] [rv N] [after N] | fail clear\n"
        "  start                                  load the module (or call its entry again)\n"
        "  restart                                end the instance, load a fresh one\n"
        "  advance DURATION                       e.g. 500ms, 90s, 30m, 1h\n"
        "  db set|hmset|del DB TYPE {RECORD}\n"
        "  db disconnect DB | db reconnect DB TYPE\n"
        "  agent set|del TYPE {RECORD}\n"
        "  card add|del DEV/SLOT/SSLOT | card online DEV/SLOT/SSLOT yes|no\n"
        "  cmd NAME [INT...]                      a debug command of the module\n"
        "  show DB [TYPE]\n"
        "  picture FILE [TITLE]                   draw the unit as the databases say (.svg, .png:\n"
        "                                         Graphviz; .dot: the text) into --pictures DIR\n"
        "  expect record|absent DB TYPE {RECORD} | expect count DB TYPE N\n"
        "  expect log|no-log [FUNC] TEXT           a line of the previous command's log\n"
        "  expect output|no-output TEXT | expect exit N\n"
        "  print TEXT | help\n";
    auto cmds = platform::commands();
    if (cmds.empty()) {
        h += "Debug commands: none registered (start the module first).\n";
    } else {
        h += "Debug commands of the module:\n";
        for (const auto &k : cmds) {
            std::string line = "  " + k.name;
            if (line.size() < 24) line.resize(24, ' ');
            h += line + " " + k.desc + "\n";
        }
    }
    return h;
}

}  // namespace host
