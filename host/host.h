// The host: plays the unit around one module instance. Executes scenario
// statements against the platform stand-in, runs the callback loop after each
// one, and checks expectations. Scripts and the shell both drive it.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_loader.h"
#include "platform_ctl.h"
#include "lexer.h"

namespace host {

// An expectation that did not hold (exit status 1). The text reads
// "expected ..., got ...".
struct ExpectFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string module_path;
    std::string log_path;  // empty: a file in the scratch directory; "-": standard error
    std::string db_path;   // empty: databases in memory only
    std::string redis;     // every database on that Redis server (platform::RedisOptions)
    std::string redis_password_file;
    int redis_timeout_ms = 5000;
    long redis_stream_max = 100000;
    int member = 0;  // a member of a unit sharing the server (0: a lone switch)
    // After every command, ask the module's built-in consistency oracle (the
    // test-only build of the module exports one) and fail on a difference.
    bool oracle = false;
    std::string pictures_dir;  // where relative picture paths go; empty: the current directory
};

class Host;

// One scenario command: described once here, read by the parser, the help, the
// shell's completion and the checks.
struct Command {
    const char *name;
    const char *usage;  // its lines of the help, "  ARGUMENTS   what it does\n"
    void (Host::*run)(Cursor &);
    // An action: its output and log are kept for the expectations, and the
    // callback loop runs after it. The others (expect, print, help) leave both.
    bool action;
    // Its first argument names a debug command of the module (the shell
    // completes it from the module's table).
    bool names_debug_command = false;
};

class Host {
  public:
    // Sets up the scratch directory, UDP_DPM_ROOT, the log and the store, and
    // arms the process-exit watch. Throws std::runtime_error when it cannot.
    explicit Host(const Options &opt);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Run one statement found at `where` ("file:line"). Throws ScriptError or
    // ExpectFailure.
    void execute(const std::string &statement, const std::string &where);
    // The end of a script: an exit still awaited did not happen.
    void end_of_script();

    std::string help() const;
    // The command table, in the order of the help.
    static const std::vector<Command> &commands();
    // Null when there is no such command.
    static const Command *find_command(const std::string &name);
    static std::vector<std::string> command_words();
    // Names of the module's registered debug commands.
    std::vector<std::string> debug_command_names() const;

    const std::string &scratch_dir() const { return scratch_.path(); }

  private:
    // An action found in the table (null: unknown, which fails inside the
    // action's frame like any other mistake of an action).
    void run_action(const Command *cmd, const std::string &verb, Cursor &c);
    void settle();
    void check_oracle();
    void emit(const std::string &text);

    void do_set(Cursor &c);
    void do_port(Cursor &c);
    void do_fail(Cursor &c);
    void do_start(Cursor &c);
    void do_restart(Cursor &c);
    void start_instance(bool restart);
    void do_advance(Cursor &c);
    void do_expect(Cursor &c);
    void do_print(Cursor &c);
    void do_help(Cursor &c);
    void do_db(Cursor &c);
    void do_agent(Cursor &c);
    void do_card(Cursor &c);
    void do_cmd(Cursor &c);
    void do_show(Cursor &c);
    void do_picture(Cursor &c);
    void do_member(Cursor &c);
    void do_respond(Cursor &c);
    // "within DURATION" at the end of an expectation: check again, running
    // the loop and waiting for other processes, until it holds or time is up.
    void check_within(Cursor &c, const std::function<void()> &check);

  public:
    // Run the loop until `stop` is set (member and responder processes).
    void serve(const volatile sig_atomic_t &stop);

  private:
    Scratch scratch_;
    ModuleLoader loader_;
    bool oracle_ = false;
    std::string pictures_dir_;
    int log_fd_ = -1;
    uint32_t devid_ = 1;
    uint32_t node_type_ = 1;
    bool started_ = false;
    // What the previous action left for the expectations.
    std::vector<platform::LogLine> last_log_;
    std::string last_output_;
};

}  // namespace host
