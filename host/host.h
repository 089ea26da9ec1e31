// The host: plays the unit around one module instance. Executes scenario
// statements against the platform stand-in, runs the callback loop after each
// one, and checks expectations. Scripts and the shell both drive it.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "module.h"
#include "platform_ctl.h"
#include "script.h"

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
    // After every command, ask the module's built-in consistency oracle (the
    // test-only build of the module exports one) and fail on a difference.
    bool oracle = false;
    std::string pictures_dir;  // where relative picture paths go; empty: the current directory
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
    static const std::vector<std::string> &command_words();
    // Names of the module's registered debug commands.
    std::vector<std::string> debug_command_names() const;

    const std::string &scratch_dir() const { return scratch_.path(); }

  private:
    void run_action(const std::string &verb, Cursor &c);
    void expect(Cursor &c);
    void settle();
    void check_oracle();
    void emit(const std::string &text);

    void do_set(Cursor &c);
    void do_port(Cursor &c);
    void do_fail(Cursor &c);
    void do_start(bool restart);
    void do_db(Cursor &c);
    void do_agent(Cursor &c);
    void do_card(Cursor &c);
    void do_cmd(Cursor &c);
    void do_show(Cursor &c);
    void do_picture(Cursor &c);

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
