// What dpm-unit tells the other tools about a running unit, kept on the unit's
// Redis server beside the records (database 13, hash "dpm-unit"): the unit
// file it runs, each member's process state, and a heartbeat that expires when
// dpm-unit stops answering. `dpm-unit check` and `dpm-unit picture` read it;
// without it they judge every member that has records as running.
#pragma once

#include <hiredis/hiredis.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace unit {

class UnitState {
  public:
    // ADDRESS: HOST:PORT or unix:PATH. Null with *error when it cannot connect.
    static std::unique_ptr<UnitState> connect(const std::string &address, std::string *error);
    ~UnitState();
    UnitState(const UnitState &) = delete;
    UnitState &operator=(const UnitState &) = delete;

    void publish_unit(const std::string &file_text);
    // who: "member:N" or "responder"; state: "running PID", "restarting",
    // "stopped".
    void set_process(const std::string &who, const std::string &state);
    // Called at least every second while dpm-unit runs.
    void heartbeat();
    void forget();  // dpm-unit ends

    struct View {
        bool found = false;
        std::string file;  // the unit file's text
        std::map<std::string, std::string> processes;
        bool supervisor_alive = false;
    };
    View read();
    // Send a server command (chaos: CLIENT KILL ...). False on an error reply.
    bool command(const std::vector<std::string> &argv, std::string *reply = nullptr);

  private:
    explicit UnitState(redisContext *ctx) : ctx_(ctx) {}
    redisContext *ctx_;
};

// The state a picture and the check give a member: "running", "stopped" or
// "unreachable" (dpm-unit says it runs, but dpm-unit itself or the process is
// gone).
std::string process_state(const UnitState::View &v, int member);
// In the unit's topology: running, or being restarted (a restart is not a
// departure); a stopped member has left the unit.
bool member_present(const UnitState::View &v, int member);

}  // namespace unit
