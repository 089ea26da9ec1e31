// Where the object database keeps its records: the embedded store (in this
// process, optionally saved in a file) or a Redis server shared by several
// processes. The client (mom.cpp) keeps sessions and subscriptions and knows
// nothing of either; a store keeps records, brackets and the events of writes.
//
// Events reach this process's subscriptions through the one callback queue. A
// store queues the events of a write in write order per database and type; a
// subscription's replay and its later events neither miss nor repeat a write.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform_state.h"

namespace platform {

struct StoredEntry {
    StoreKey key;
    Stored rec;
};

// `member` selects the per-member databases of a unit on a shared server
// (0: none); the embedded store has one member and ignores it.
class Store {
  public:
    virtual ~Store() = default;
    virtual void write(int member, int db, const std::string &type, const RecordKey &k,
                       const std::string &packed, bool field_form) = 0;
    virtual void del(int member, int db, const std::string &type, const RecordKey &k) = 0;
    // Key order; empty type: every type, sorted by type.
    virtual std::vector<StoredEntry> records(int member, int db, const std::string &type) = 0;
    virtual std::optional<StoredEntry> get(int member, int db, const std::string &type,
                                           const RecordKey &k) = 0;
    // Queue every stored record of the subscription's type (key order), then
    // the data-sync request; later writes follow as events from that point on.
    virtual void subscribe(int member, Subscription &sub) = 0;
    virtual void bracket_begin(int member, int db, const std::string &type) = 0;
    virtual void bracket_end(int member, int db, const std::string &type) = 0;
    // The module instance ended: its open brackets doom nothing any more.
    virtual void drop_instance() = 0;
    // Queue the events other processes caused, waiting up to wait_ms for the
    // first. True when anything was queued.
    virtual bool poll(int wait_ms) {
        (void)wait_ms;
        return false;
    }
    // Send what is still buffered (writes are pipelined).
    virtual void flush() {}
    // Benchmarks: keep every command sent to a server, and send such a log
    // again, pipelined (nothing to do for the embedded store).
    virtual void command_log(bool on) { (void)on; }
    virtual std::vector<std::vector<std::string>> take_command_log() { return {}; }
    virtual void replay_commands(const std::vector<std::vector<std::string>> &log) { (void)log; }
    // Tell the unit's other processes of a card or agent change (kind:
    // card_add, card_del, card_online, card_offline, agent_set, agent_del) for
    // one member's process (0: all). Nothing to do for a store of one process.
    virtual void share(const std::string &kind, int member, const std::string &type,
                       const std::string &data) {
        (void)kind;
        (void)member;
        (void)type;
        (void)data;
    }
};

std::unique_ptr<Store> make_embedded_store();
// ADDRESS: HOST:PORT or unix:PATH. Null with *error set when it cannot connect.
std::unique_ptr<Store> make_redis_store(const std::string &address, std::string *error);

Store &store();

// Queue one database event for a subscriber (or a scan callback). has_record
// false: an event without a record.
void queue_event(const ProtobufCMessageDescriptor *desc, xn_mom_event_cb_t cb, void *client,
                 int cmd, uint32_t scan_over, bool has_record, std::string packed, uint64_t sub_id,
                 bool front = false);

// The events of one write for every matching subscription of this process.
void notify(int db, const std::string &type, int cmd, const std::string &packed);

// Text form of a record for people reading the store (set by the host, which
// has the text format; empty without it).
std::string record_text(const std::string &type, const std::string &packed);

}  // namespace platform
