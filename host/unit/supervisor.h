// A running unit: its Redis server, one dpm-host per member, the hardware
// responder, the unit's other components and the topology producer, all
// started and watched by one supervisor (dpm-unit run and chaos).
//
// The producer runs here: it reads every member's link records, knows which
// members are in the unit (a member whose process was stopped has left it; one
// being restarted has not) and writes each member's topology map when they
// change. Convergence is measured from the moment a fault is made to the last
// write of a member's output (TOPO_DB, its forwarding state) or of a map, and
// counted only once the unit-wide check holds.
#pragma once

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>

#include "check.h"
#include "components.h"
#include "processes.h"
#include "topology.h"
#include "unit_file.h"
#include "unit_state.h"

namespace unit {

// The outcome of waiting for the unit to settle after a change.
struct Settled {
    bool held = false;                  // the check held (bounded wait)
    double converge_ms = 0;             // from the change to the last output write
    double verified_ms = 0;             // from the change to the check that held
    std::vector<Violation> violations;  // of the last check, when it never held
    std::map<int, double> member_ms;    // per member, its last output write
};

class Supervisor {
  public:
    struct Options {
        std::string dir;    // the unit's private directory (mode 0700)
        std::string redis;  // a server to use; empty: a private redis-server in dir
        std::string host;   // the dpm-host program
        int log_level = 1;  // the modules' log level
        int settle_timeout_ms = 30000;
        std::ostream *out = nullptr;                  // what the supervisor does, one line each
        const volatile sig_atomic_t *stop = nullptr;  // set by SIGINT/SIGTERM
    };

    Supervisor(const Unit &u, std::string unit_text, Options o);
    ~Supervisor();  // stops every process it started
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;

    // The store, every input, the first maps, then the members and the
    // responder. Convergence of the bring-up is measured from here.
    void start();
    // Convergence of what follows is measured from now.
    void mark();
    void inject(const Fault &f);
    void stop_responder();
    void start_responder();
    // Wait until the check holds (bounded). `restarted`: a member started
    // afresh must also have written its forwarding state since the mark.
    Settled settle(std::optional<int> restarted = std::nullopt);
    // One turn of the loop: deliver events, reap and restart processes, let
    // the producer write maps.
    void turn(int wait_ms);
    std::vector<Violation> check_now();
    void stop_all();

    bool failed() const { return failed_; }
    // The processes it runs now: "member N", "responder", "redis-server".
    std::vector<std::pair<std::string, pid_t>> pids() const;
    const std::string &address() const { return address_; }
    const Components &components() const { return components_; }

  private:
    void log(const std::string &line);
    void start_member(int id);
    void stop_member(int id, int sig, bool leave);
    void produce();
    void watch();
    void event(int member = 0);
    std::vector<MemberInfo> member_infos() const;
    double since_mark_ms(uint64_t t) const;

    const Unit &u_;
    std::string unit_text_;
    Options o_;
    Components components_;
    std::unique_ptr<UnitState> state_;
    Child redis_;
    std::string address_;
    std::map<int, Child> members_;  // running member processes
    std::set<int> present_;         // members in the unit
    Child responder_;
    bool failed_ = false;
    // The producer's view: link records by member and port; maps last written.
    std::map<int, std::map<std::tuple<int, int, int, int>, LinkEnd>> links_;
    std::map<int, Map> written_;
    bool dirty_ = true;
    // Output writes seen since the start, and when the last one came.
    uint64_t events_ = 0;
    uint64_t last_event_us_ = 0;
    uint64_t mark_us_ = 0;
    uint64_t start_us_ = 0;
    uint64_t last_beat_us_ = 0;
    std::map<int, uint64_t> fwd_written_us_;  // by device
    std::map<int, uint64_t> last_write_us_;   // by member
};

uint64_t now_us();

}  // namespace unit
