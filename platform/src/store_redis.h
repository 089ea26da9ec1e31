// The Redis store: every database on a Redis server that several processes
// share. Its jobs, one file each:
//   redis_link.cpp      the connection: address forms, credentials, checks, pipeline
//   redis_layout.h      where things are kept (keys, the event stream)
//   redis_lua/*.lua     the server-side scripts, built in
//   redis_writes.cpp    changes: numbered, pipelined, kept and sent again until
//                       the server has applied each exactly once, in order
//   redis_events.cpp    the one event stream: reading it in write order, routing
//                       events to subscriptions, detecting what was lost
//   redis_snapshot.cpp  snapshots and scans in chunks
//   redis_unit.cpp      the unit's cards, presence, agent records and port
//                       lookups, and the member lease
//   store_redis.cpp     the Store interface, losing and finding the server
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "redis_layout.h"
#include "redis_link.h"
#include "store.h"

namespace platform::redis {

using Clock = std::chrono::steady_clock;

// A change this process sends: one script call.
struct Op {
    uint64_t id = 0;   // order of submission
    uint64_t seq = 0;  // this origin's change number once sent (0: not yet numbered)
    Script script = kBatch;
    bool deletion = false;  // kBatch: a record deleted, not written
    uint64_t call = 0;      // the op whose call carried it (several share a batch)
    int db = 0;
    std::vector<std::string> keys, args;  // args after db, origin and number
    // Changes of one scope (a record, or a whole type for brackets) keep their
    // order when one of them is held back.
    std::string scope, type_scope;
    std::string what;  // for people: "set TYPE:KEY in db N"
    bool placeholder = false;
};

// A place in the event stream: the entry id and its ordinal.
struct Pos {
    std::string id = "0-0";
    uint64_t n = 0;
};

// An entry read from the server and not yet taken in: a placeholder reads on
// past its own write, and what it read beyond waits here for its turn.
struct Ahead {
    std::string id;
    uint64_t n = 0;
    std::map<std::string, std::string> f;
};

// A fresh subscription's snapshot was read in chunks, each current at its own
// ordinal: events of a chunk's keys up to that ordinal are in the snapshot.
struct Skip {
    std::vector<std::pair<std::string, uint64_t>> chunks;  // last member ("" = the rest), ordinal
    uint64_t upto = 0;
};

class RedisStore final : public Store {
  public:
    RedisStore(Address address, const RedisOptions &opt);
    ~RedisStore() override;
    bool start(std::string *error);

    int write(int member, const Record &rec) override;
    int del(int member, const Record &rec) override;
    bool records(int member, int db, const std::string &type, std::vector<Record> *out) override;
    std::optional<Record> get(int member, const Record &rec) override;
    bool subscribe(int member, Subscription &sub) override;
    void catch_up() override;
    void bracket_begin(int member, int db, const std::string &type) override;
    void bracket_end(int member, int db, const std::string &type) override;
    void drop_instance() override;
    bool poll(int wait_ms) override;
    void flush() override;
    void send_full() override;
    std::vector<std::string> finish(int wait_ms) override;
    std::string status() override;
    int claim_member(int member, std::string *error) override;
    void free_member(int member) override;
    void command_log(bool on) override;
    std::vector<std::vector<std::string>> take_command_log() override;
    void replay_commands(const std::vector<std::vector<std::string>> &log) override;
    void share(const std::string &kind, int member, const std::string &type,
               const std::string &data) override;

  private:
    // ---- changes (redis_writes.cpp)
    int submit(Op op);
    void pump();
    void send();
    void send_batch(std::vector<Op> *batch);
    void drain();
    void take_reply(Op op, const redisReply *r, std::vector<Op> *again);
    void park(Op op, const std::string &cause);
    bool held_back(const Op &op) const;
    void refused(const std::string &cause);
    void renumber();
    bool changes_pending() const;
    Op change(Script s, int db, std::vector<std::string> keys, std::vector<std::string> args,
              std::string scope, std::string type_scope, std::string what);

    // ---- events (redis_events.cpp)
    void ensure_started();
    // Take in events up to ordinal `upto` (0: all there are, within a bound),
    // reading from the server what is not read yet. True when any was queued.
    bool read_events(uint64_t upto, int wait_ms, bool front);
    int fetch(int wait_ms);
    bool take(uint64_t upto, bool front);
    bool watched_type(const std::map<std::string, std::string> &f) const;
    void route(const std::map<std::string, std::string> &f, uint64_t n, bool front);
    void placeholder(uint64_t op_id);
    bool position_continues(std::string *why);
    void gap(const std::string &why);
    void report_position();

    // ---- snapshots (redis_snapshot.cpp)
    using TakeRecord = std::function<void(std::string packed, Form form)>;
    bool read_type(int member, int db, const std::string &type, const TakeRecord &take, Skip *skip);

    // ---- the unit (redis_unit.cpp)
    bool load_unit();
    bool take_unit(const std::map<std::string, std::string> &f);
    void renew_lease(bool now);
    bool new_origin(std::string *error);

    // ---- the connection (store_redis.cpp)
    Reply call(const std::vector<std::string> &args);
    void on_lost();
    bool reconnect(int wait_ms);
    // What this process took in cannot be continued: its sessions are not
    // resumed (reconnect type 1) and a process of watches alone ends (77);
    // one without subscriptions (or with `stop` false and none) reads on
    // from the unit's state.
    void cannot_resume(const std::string &why, bool stop = false);
    // One line to standard error per `what` and interval, with how many were
    // held back since the last.
    void log_throttled(const std::string &what, const std::string &text);

    Link link_;
    RedisOptions opt_;
    std::string origin_;
    int lease_member_ = 0;
    Clock::time_point lease_renewed_{};

    // changes
    uint64_t next_op_ = 1, next_seq_ = 1;
    std::deque<Op> unsent_, inflight_, parked_;
    std::map<std::string, int> parked_scopes_;
    bool lost_sequence_ = false, reload_scripts_ = false;
    Clock::time_point paused_until_{}, parked_retry_{};
    int backoff_ms_ = 50;
    uint64_t acknowledged_ = 0, dropped_ = 0;
    std::map<std::string, uint64_t> refusals_;  // by cause
    std::string refusing_;                      // the cause in force ("" none)
    std::set<uint64_t> waiting_;                // ops whose placeholder waits
    std::map<uint64_t, Pos> written_;           // their events, once acknowledged
    std::set<std::tuple<int, int, std::string>> brackets_;
    bool pumping_ = false;

    // events
    bool started_ = false;
    Pos read_, fetched_;  // taken in; read from the server
    std::deque<Ahead> ahead_;
    uint64_t resets_ = 0;  // times the position was set anew after a gap
    uint64_t reported_ = 0;
    std::map<uint64_t, Skip> skips_;  // by subscription

    // connection
    bool lost_ = false;
    std::vector<int> lost_sessions_;
    Clock::time_point next_attempt_{};
    std::map<std::string, int> snapshot_failures_;
    std::string give_up_;
    std::map<std::string, std::pair<Clock::time_point, uint64_t>> throttle_;
};

}  // namespace platform::redis
