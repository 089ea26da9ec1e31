// Private state of the platform stand-in, shared by its source files.
//
// One process-wide State holds everything the stand-in knows. The parts that
// belong to the running module instance (queue, subscriptions, sessions, timers,
// registrations, commands) are what drop_instance() clears; the parts that play
// the rest of the unit (databases, agent records, cards, tables) outlive it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "libddm.h"
#include "platform_ctl.h"
#include "ssat.h"
#include "xn_mom.h"

namespace platform {

// ---- record types ----------------------------------------------------------------

// Our own copy of the descriptor of a full type name, or null.
const ProtobufCMessageDescriptor *find_descriptor(const std::string &type);

// A module's message packed and keyed for database `db`.
Record record_of(int db, const ProtobufCMessage *msg, Form form = Form::Whole);

// Packs a message into a string.
std::string pack(const ProtobufCMessage *msg);

// ---- object database ---------------------------------------------------------------

// What a database keeps at each place (Record::id()).
using RecordId = std::tuple<std::string, std::string, std::string>;
struct Kept {
    Record rec;
    bool expired = false;  // inside an open data-sync bracket and not yet rewritten
};
using Database = std::map<RecordId, Kept, std::less<>>;

struct Session {
    void *client = nullptr;
    bool connected = false;  // the module connected it
    bool down = false;       // lost, waiting for a reconnect
    xn_mom_conn_cb_t conn_cb = nullptr;
    xn_mom_disconn_cb_t disconn_cb = nullptr;
    xn_mom_reconn_cb_t reconn_cb = nullptr;
};

struct Subscription {
    uint64_t id;
    int db;
    std::string type;
    const ProtobufCMessageDescriptor *desc;  // the module's own copy
    xn_mom_event_cb_t cb;
    void *client;
    void *user;
    int member = 0;  // whose databases (a unit on a shared server)
    // Its session is away: events wait in `missed`, in write order, until the
    // session's reconnect callback subscribes again (and gets them) or not
    // (and the subscription goes).
    bool away = false;
    std::deque<std::pair<int, std::string>> missed;  // command, packed record
};

// ---- data-sync agent ---------------------------------------------------------------

struct Agent {
    std::unique_ptr<xn_mom_ab_t> ab;
    std::vector<std::string> types;  // from xn_mom_reg_ds
};

struct KeyEventReg {
    xn_mom_ab_t *agent;
    xn_mom_ds_reg_t *reg;
    std::string type;
    const ProtobufCMessageDescriptor *desc;
    int event;
    xn_mom_key_event_cb_t cb;
    void *user;
};

// ---- everything else ---------------------------------------------------------------

class Store;

struct QueueItem {
    std::function<void()> fn;
    uint64_t sub_id = 0;    // subscription the event is for (0: none)
    uint64_t timer_id = 0;  // timer that became due (0: none)
    bool deletion = false;  // a record deletion event
};

struct Timer {
    uint64_t id;
    uint64_t due_us;
    xn_thread_func_t fn;
};

struct Fault {
    std::string op;
    int db;
    int count;  // < 0: always
    int rv;
    int skip;  // matching calls that still succeed before the fault starts
};

struct DdmReg {
    int kind;
    libddm_notify_cb_t cb;
    void *ctx;
};

struct CommandEntry {
    platform::Command cmd;
    ssat_cmd_fn handler;
    uint64_t seq;  // registration order, for listing the table as registered
};

using Port = std::tuple<int, int, int>;

struct State {
    // unit side, kept across module instances
    std::map<int, Database> dbs;
    std::set<Record> agent_records;  // the current record of each key (db 0)
    std::vector<uint32_t> cards;     // announcement order
    std::map<Port, std::optional<uint32_t>> chipids, phyids;
    std::map<std::string, std::optional<int32_t>> capacity;
    std::set<Port> offline_cards;
    std::vector<Fault> faults;
    std::vector<platform::ModuleWrite> module_writes;
    bool keep_module_writes = true;  // off in processes that never read them
    std::vector<platform::LogLine> log;
    std::deque<std::string> categories;  // stable storage behind category pointers
    std::string db_path;
    bool db_dirty = false;  // changed inside a callback, saved when it returns
    int callback_depth = 0;
    uint64_t now_us = 0;
    int ssat_init_result = 0;
    std::unique_ptr<Store> store;  // null: the embedded store, made on first use
    bool on_redis = false;
    std::function<std::string(const std::string &, const std::string &)> text_form;
    // Per-member databases on a shared server: the module's own member, and the
    // one the steering calls look at (0: none).
    int module_member = 0;
    int view_member = 0;

    // module instance side
    std::deque<QueueItem> queue;
    size_t front_next = 0;  // where the next front insertion of the running item goes
    std::map<int, Session> sessions;
    std::vector<Subscription> subs;
    std::deque<platform::WatchFn> watches;  // behind db_watch subscriptions
    std::set<std::pair<int, std::string>> open_brackets;
    std::vector<std::unique_ptr<Agent>> agents;
    std::vector<KeyEventReg> key_regs;
    std::vector<DdmReg> ddm_regs;
    std::vector<Timer> timers;
    std::map<std::string, CommandEntry> commands;

    uint64_t next_id = 1;
};

State &st();

// The failure result when a fault is armed for `op` (db < 0: the function takes
// no database), consuming one count of it.
std::optional<int> fault(const char *op, int db = -1);

// front: run right after the item being delivered (and after what it put in
// front before), e.g. the events a store fetched in place of a placeholder.
void enqueue(std::function<void()> fn, uint64_t sub_id = 0, uint64_t timer_id = 0,
             bool front = false, bool deletion = false);

// Persist the databases when a file is attached. Inside a callback the save
// waits until the callback returns (or the process exits), so that a burst of
// writes costs one save rather than one per record.
void save_dbs();
void flush_dbs();
// What the steering calls do in this process only; on a shared server they
// are also shared with the unit's other processes, which do the same.
void card_here(bool add, uint32_t gslot);
void card_online_here(int devid, int slot, int sslot, bool online);
int agent_here(bool set, const std::string &type, const std::string &packed);

// Drop every module-instance part of the state.
void drop_instance_state();

}  // namespace platform
