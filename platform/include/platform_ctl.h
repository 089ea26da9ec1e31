// Steering side of the platform stand-in. The module never includes this: it is
// what the host process and the tests use to play the other components of the
// unit (their records, faults, time, cards) and to look at what the module did.
//
// Everything runs on one thread. Platform calls made by the module only queue
// their effects; run_until_idle() delivers queued callbacks one at a time in
// the order their causes happened.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace platform {

// ---- whole stand-in ----------------------------------------------------------

// Forget everything: databases, sessions, queue, agent, cards, faults, log,
// commands, clock back to its start. For tests that need a clean unit.
void reset();

// The host handle handed to the module (opaque, never null).
void *host_handle();

// End the module instance: drop every registration it made (sessions and their
// callbacks, subscriptions, queued events, timers, device-data notifications,
// agent and key events, debug commands). Databases, agent records, announced
// cards, lookup tables and card presence are kept.
void drop_instance();

// ---- callback loop -------------------------------------------------------------

// Deliver one queued callback. False when nothing is queued.
bool run_one();
// Deliver until nothing is queued (callbacks may queue more). Returns the count
// delivered.
size_t run_until_idle();
size_t pending();

// ---- object database -------------------------------------------------------------

// How a record was written: whole (xn_mom_set, events with command 1) or
// field by field (xn_mom_hmset, command 4 in entry form).
enum class Form : uint8_t { Whole, Fields };

// A record as the databases keep it. Its place is its database, its type and
// its key; a write to the same place replaces it.
struct Record {
    int db = 0;
    std::string type;    // full name, e.g. "u_cluster.kel_uc_balance"
    std::string key;     // canonical packed index sub-message (empty: no index or all zero)
    std::string order;   // the key's field values as bytes that sort in numeric order
    std::string packed;  // the record itself
    Form form = Form::Whole;

    // Its place inside its database, in listing order (by type, then key).
    auto id() const { return std::tie(type, order, key); }
    bool same_key(const Record &o) const { return db == o.db && id() == o.id(); }
    // < orders places (database, type, key), as listings do; == compares all.
    friend bool operator<(const Record &a, const Record &b) {
        return std::tie(a.db, a.type, a.order, a.key) < std::tie(b.db, b.type, b.order, b.key);
    }
    friend bool operator==(const Record &, const Record &) = default;
};

// The record `packed` of `type` keyed for database `db`; nullopt for an
// unknown type or bytes that do not decode.
std::optional<Record> make_record(int db, const std::string &type, std::string packed,
                                  Form form = Form::Whole);
// Its key as a person reads it: "modid=3" (empty for a type without a key).
std::string key_text(const Record &rec);

// Writes of other components. `packed` is the wire form of a record of `type`.
// Return 0, or -1 for an unknown type or bytes that do not decode.
int db_set(int db, const std::string &type, const std::string &packed);
int db_hmset(int db, const std::string &type, const std::string &packed);
int db_del(int db, const std::string &type, const std::string &packed);

// Records sorted by type, then key. Empty type: every type.
std::vector<Record> db_records(int db, const std::string &type = "");
std::optional<Record> db_get(int db, const std::string &type, const std::string &packed);

// Known record types (full names), for the host's checks.
bool known_type(const std::string &type);
bool type_has_index(const std::string &type);

// Session loss and return. reconnect queues the reconnect callback with `type`;
// before it runs, the session's subscriptions are dropped.
void db_disconnect(int db);
void db_reconnect(int db, int type);
bool db_connected(int db);

// Keep the databases in a file: load on open when it exists, save after every
// change. Empty path: memory only.
int db_open_file(const std::string &path);

// Put every database on a Redis server shared with other processes instead of
// the embedded store. 0, or -1 with *error naming the cause.
struct RedisOptions {
    // HOST:PORT, unix:PATH, redis://[USER[:PASSWORD]@]HOST[:PORT]/ or unix:///PATH
    std::string address;
    // Where the password is when the address has none: the first line of this
    // file, else the environment variable DPM_REDIS_PASSWORD.
    std::string password_file;
    int timeout_ms = 5000;     // the longest wait for one reply of the server
    long stream_max = 100000;  // about how many events the server keeps
};
int db_use_redis(const RedisOptions &opt, std::string *error);
int db_use_redis(const std::string &address, std::string *error);
bool db_on_redis();
// Serve member N alone: a second process for the same member on the same
// server is refused (0, or -1 with *error).
int db_claim_member(int member, std::string *error);
// For a supervisor that saw the process serving member N end: its claim is
// given up at once instead of running out, so a new process can serve N.
void db_free_member(int member);
// Before the process ends: wait up to wait_ms until the server has
// acknowledged every change this process made. What it has not (a line each,
// and the count of changes dropped) is returned; empty when all is well.
std::vector<std::string> db_finish(int wait_ms);
// Where the store is and how its changes fare, a few lines for people.
std::string db_status();
// Members of a unit on one server: each member's LOCAL_DB and TOPO_DB are its
// own. db_member sets the module's member and the one the steering calls look
// at; db_view changes only the latter (0: no member, the databases of a lone
// switch).
void db_member(int member);
void db_view(int member);
int db_view_member();
// Text form of records kept beside their bytes for people reading the store.
void set_record_text(
    std::function<std::string(const std::string &type, const std::string &packed)> fn);
// Watch a record type of one member's database as another component does:
// `fn` gets each stored record (command 1 or 4), then every later event (1, 3
// or 4) with the record packed, from the callback loop. Dropped with the
// module instance.
using WatchFn = std::function<void(int cmd, const std::string &packed)>;
void db_watch(int member, int db, const std::string &type, WatchFn fn);
// Benchmarks on Redis: keep every command sent to the server (on: start
// afresh), take them, and send such a log again, pipelined, waiting for every
// reply: the server's own time for the same work.
void db_command_log(bool on);
std::vector<std::vector<std::string>> db_take_command_log();
void db_replay_commands(const std::vector<std::vector<std::string>> &log);
// Wait up to `ms` for events other processes caused; true when any was queued.
bool db_wait(int ms);

// Every write the module made (set, hmset, del), in order, for tests that count
// writes.
struct ModuleWrite : Record {
    enum Op { Set, HmSet, Del } op = Set;
};
const std::vector<ModuleWrite> &module_writes();
void clear_module_writes();
// Whether to keep them (on by default; a process that never reads them turns
// it off, so that its memory stays flat).
void keep_module_writes(bool on);

// ---- data-sync agent -------------------------------------------------------------

// Keep `packed` as the current record of its key and raise the set (or delete)
// key event for every matching registration (queued).
int agent_set(const std::string &type, const std::string &packed);
int agent_del(const std::string &type, const std::string &packed);

// ---- device-data library ---------------------------------------------------------

// Announce or remove a card (module event, kind 8, op 0 or 1, data = gslot).
void card_add(uint32_t gslot);
void card_del(uint32_t gslot);
// Lookup tables; nullopt makes the lookup fail.
void set_chipid(int devid, int slot, int lport, std::optional<uint32_t> chipid);
void set_phyid(int devid, int slot, int lport, std::optional<uint32_t> gphyid);

// ---- other platform pieces -------------------------------------------------------

void set_capacity(const std::string &key, std::optional<int32_t> value);  // nullopt: read fails
void set_card_online(int devid, int slot, int sslot, bool online);

// Clock of the timers (and of gettimeofday-free time stamps the stand-in hands out).
void advance_us(uint64_t us);
uint64_t now_us();

// ---- faults ------------------------------------------------------------------------

// Make the named platform function (e.g. "xn_mom_set", "libddm_init",
// "xn_mom_client_connect") fail. db < 0: any database. count < 0: always.
// rv: the failure result to return (or, for pointer results, null).
// skip: that many matching calls succeed first (the 2nd of a chain of calls
// fails with skip 1).
void fail(const std::string &op, int db = -1, int count = 1, int rv = -1, int skip = 0);
void clear_faults();
// The failure result when a fault is armed for `op`, consuming one count of it,
// for stand-ins outside this library (the test builds' allocator: "malloc",
// "calloc", "realloc").
std::optional<int> take_fault(const char *op);

// ---- logging -----------------------------------------------------------------------

struct LogLine {
    int level;
    std::string file;
    std::string func;
    long line;
    std::string text;
};
// Lines logged since the last take_log().
std::vector<LogLine> take_log();
// Also write each line to this file descriptor (-1: nowhere).
void set_log_fd(int fd);

// ---- debug commands ----------------------------------------------------------------

struct Command {
    std::string module;
    std::string name;
    std::string desc;
    int nargs;  // number of %d conversions in desc
};
// In registration order.
std::vector<Command> commands();
// Call a registered command with its ints (missing ones are 0). Its standard
// output is returned in *out. Returns false when no such command.
bool run_command(const std::string &name, const std::vector<int> &args, std::string *out,
                 int *rv = nullptr);

// Result of ssat_lib_init (0 by default).
void set_ssat_init_result(int rv);

}  // namespace platform
