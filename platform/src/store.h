// Where the object database keeps its records: the embedded store (in this
// process, optionally saved in a file) or a Redis server shared by several
// processes. The client (mom.cpp) keeps sessions and subscriptions and knows
// nothing of either; a store keeps records, brackets and the events of writes.
//
// Events reach this process's subscriptions through the one callback queue. A
// store queues the events of writes in write order, across databases and
// types; a subscription's replay and its later events neither miss nor repeat
// a write.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform_state.h"

namespace platform {

// `member` selects the per-member databases of a unit on a shared server
// (0: none); the embedded store has one member and ignores it.
class Store {
  public:
    virtual ~Store() = default;
    // 0, or -1 when the store cannot keep the change (it counts it as dropped).
    virtual int write(int member, const Record &rec) = 0;
    // Deletes the record at the place of `rec`.
    virtual int del(int member, const Record &rec) = 0;
    // Key order; empty type: every type, sorted by type. False when the
    // records could not be read (nothing partial is handed out then).
    virtual bool records(int member, int db, const std::string &type, std::vector<Record> *out) = 0;
    // The record at the place of `rec`.
    virtual std::optional<Record> get(int member, const Record &rec) = 0;
    // Queue every stored record of the subscription's type (key order), then
    // the data-sync request; later writes follow as events from that point on.
    // False when the records could not be read (nothing is queued then).
    virtual bool subscribe(int member, Subscription &sub) = 0;
    // A resumed subscription is about to deliver what it missed: take in every
    // event written so far first.
    virtual void catch_up() {}
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
    // Between callbacks: send the changes that fill whole calls, without
    // waiting for their replies (flush and poll send the rest).
    virtual void send_full() {}
    // Wait up to wait_ms until every change made is acknowledged; what is not
    // (one line each, and the count of dropped changes) is returned.
    virtual std::vector<std::string> finish(int wait_ms) {
        (void)wait_ms;
        return {};
    }
    // A few lines for people: where the store is and how its changes fare.
    virtual std::string status() { return "store: embedded\n"; }
    // Serve member N alone on a shared server (0, or -1 with *error).
    virtual int claim_member(int member, std::string *error) {
        (void)member;
        (void)error;
        return 0;
    }
    // The process serving member N ended (its supervisor saw it): free N now.
    virtual void free_member(int member) { (void)member; }
    // Benchmarks: keep every command sent to a server, and send such a log
    // again, pipelined (nothing to do for the embedded store).
    virtual void command_log(bool on) { (void)on; }
    virtual std::vector<std::vector<std::string>> take_command_log() { return {}; }
    virtual void replay_commands(const std::vector<std::vector<std::string>> &log) { (void)log; }
    // Tell the unit's other processes of a change of the unit (kind: card_add,
    // card_del, card_online, card_offline, agent_set, agent_del, chip, phy)
    // for one member's process (0: all). Nothing to do for a store of one
    // process.
    virtual void share(const std::string &kind, int member, const std::string &type,
                       const std::string &data) {
        (void)kind;
        (void)member;
        (void)type;
        (void)data;
    }
};

std::unique_ptr<Store> make_embedded_store();
// Null with *error set when the server cannot be used.
std::unique_ptr<Store> make_redis_store(const RedisOptions &opt, std::string *error);

Store &store();

// Queue one database event for a subscriber (or a scan callback). has_record
// false: an event without a record.
void queue_event(const ProtobufCMessageDescriptor *desc, xn_mom_event_cb_t cb, void *client,
                 int cmd, uint32_t scan_over, bool has_record, std::string packed, uint64_t sub_id,
                 bool front = false);

// One event for a subscription: queued, or kept while its session is away
// (front: right after the item being delivered).
void deliver(Subscription &sub, int cmd, std::string packed, bool front = false);

// The events of one write for every matching subscription of this process.
void notify(int db, const std::string &type, int cmd, const std::string &packed);

// The event command that delivers a record of this form: 1, or 4 in entry form.
inline int set_cmd(Form form) {
    return form == Form::Fields ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET;
}

// Bytes as lower-case hex digits.
std::string hex(const std::string &s);

// Text form of a record for people reading the store (set by the host, which
// has the text format; empty without it).
std::string record_text(const Record &rec);

}  // namespace platform
