// Object-database client: sessions, subscriptions and scans, data-sync brackets,
// over whichever store holds the records (store.h).
//
// Whoever writes (the module or another component played by the host), every
// subscription of that database to the record's type gets the event, queued. A
// record handed to a callback is unpacked with the subscriber's own descriptor
// and freed again when the callback returns, as the real client owns it for
// that long.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "store.h"

namespace plat {

void queue_event(const ProtobufCMessageDescriptor *desc, xn_mom_event_cb_t cb, void *client,
                 int cmd, uint32_t scan_over, bool has_record, std::string packed, uint64_t sub_id,
                 bool front) {
    enqueue(
        [=, packed = std::move(packed)] {
            xn_mom_msg_t msg{};
            msg.cmd = cmd;
            msg.scan_over = scan_over;
            ProtobufCMessage *rec = nullptr;
            xn_mom_entry_t entry{};
            if (has_record) {
                rec = protobuf_c_message_unpack(desc, nullptr, packed.size(),
                                                reinterpret_cast<const uint8_t *>(packed.data()));
                if (rec == nullptr) {
                    std::fprintf(stderr, "xn_mom: %s record does not decode, event %d dropped\n",
                                 desc->name, cmd);
                    return;
                }
                if (cmd == XN_MOM_CMD_HMSET) {
                    entry.msg = rec;
                    entry.status = 0;
                    msg.data = &entry;
                } else {
                    msg.data = rec;
                }
            }
            cb(client, &msg);
            if (rec != nullptr) protobuf_c_message_free_unpacked(rec, nullptr);
        },
        sub_id, 0, front);
}

void notify(int db, const std::string &type, int cmd, const std::string &packed) {
    for (const Subscription &sub : st().subs) {
        if (sub.db != db || sub.type != type) continue;
        queue_event(sub.desc, sub.cb, sub.client, cmd, 0, true, packed, sub.id);
    }
}

Store &store() {
    State &s = st();
    if (!s.store) s.store = make_embedded_store();
    return *s.store;
}

std::string record_text(const std::string &type, const std::string &packed) {
    const auto &fn = st().text_form;
    return fn ? fn(type, packed) : std::string();
}

namespace {

// Drop subscriptions (and whatever they still have queued) that match `pred`.
template <typename Pred>
void drop_subs(Pred pred) {
    State &state = st();
    std::set<uint64_t> dropped;
    std::erase_if(state.subs, [&](const Subscription &sub) {
        if (!pred(sub)) return false;
        dropped.insert(sub.id);
        return true;
    });
    if (dropped.empty()) return;
    std::erase_if(state.queue,
                  [&](const QueueItem &item) { return dropped.count(item.sub_id) != 0; });
}

int module_write(const char *op, platform::ModuleWrite::Op kind, void *client, int db,
                 const ProtobufCMessage *msg) {
    (void)client;
    if (auto rv = fault(op, db)) return *rv;
    if (msg == nullptr || msg->descriptor == nullptr) return -1;
    const std::string type = msg->descriptor->name;
    std::string packed = pack(msg);
    RecordKey k = key_of(msg);
    st().module_writes.push_back(platform::ModuleWrite{kind, db, type, packed});
    if (kind == platform::ModuleWrite::Del) {
        store().del(st().module_member, db, type, k);
    } else {
        store().write(st().module_member, db, type, k, packed,
                      kind == platform::ModuleWrite::HmSet);
    }
    return 0;
}

}  // namespace
}  // namespace plat

using plat::st;

extern "C" {

// ---- sessions --------------------------------------------------------------------

int xn_mom_client_connect_sync(void *client, int db) {
    if (auto rv = plat::fault("xn_mom_client_connect_sync", db)) return *rv;
    plat::Session &s = st().sessions[db];
    s.client = client;
    s.connected = true;
    s.down = false;
    return 0;
}

int xn_mom_client_connect(void *client, int db, xn_mom_conn_cb_t cb) {
    if (auto rv = plat::fault("xn_mom_client_connect", db)) return *rv;
    plat::Session &s = st().sessions[db];
    s.client = client;
    s.connected = true;
    s.down = false;
    s.conn_cb = cb;
    if (cb != nullptr) plat::enqueue([cb, client] { cb(client); });
    return 0;
}

int xn_mom_client_set_disconnect_cb(void *client, int db, xn_mom_disconn_cb_t cb) {
    if (auto rv = plat::fault("xn_mom_client_set_disconnect_cb", db)) return *rv;
    plat::Session &s = st().sessions[db];
    if (s.client == nullptr) s.client = client;
    s.disconn_cb = cb;
    return 0;
}

int xn_mom_client_set_reconnect_cb(void *client, int db, xn_mom_reconn_cb_t cb) {
    if (auto rv = plat::fault("xn_mom_client_set_reconnect_cb", db)) return *rv;
    plat::Session &s = st().sessions[db];
    if (s.client == nullptr) s.client = client;
    s.reconn_cb = cb;
    return 0;
}

// ---- subscriptions and scans -----------------------------------------------------

int xn_mom_subscribe(void *client, int db, const ProtobufCMessage *tmpl, int flags,
                     xn_mom_event_cb_t cb, void *user) {
    (void)flags;
    if (auto rv = plat::fault("xn_mom_subscribe", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr || cb == nullptr) return -1;
    plat::State &s = st();
    plat::Subscription sub{s.next_id++, db,  tmpl->descriptor->name, tmpl->descriptor, cb,
                           client,      user};
    // Subscribing again to the same type with the same handler replaces the
    // earlier subscription: a session that resubscribes (a resumed session, a
    // repeated connect) must not get every later event twice.
    plat::drop_subs([&](const plat::Subscription &old) {
        return old.db == db && old.type == sub.type && old.cb == cb && old.client == client;
    });
    plat::store().subscribe(s.module_member, sub);
    s.subs.push_back(std::move(sub));
    return 0;
}

int xn_mom_scan(void *client, int db, const ProtobufCMessage *tmpl, int flags, xn_mom_event_cb_t cb,
                void *user) {
    (void)flags;
    (void)user;
    if (auto rv = plat::fault("xn_mom_scan", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr || cb == nullptr) return -1;
    const ProtobufCMessageDescriptor *desc = tmpl->descriptor;
    for (const auto &e : plat::store().records(st().module_member, db, desc->name)) {
        plat::queue_event(desc, cb, client, e.rec.field_form ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET, 0,
                          true, e.rec.packed, 0);
    }
    plat::queue_event(desc, cb, client, 0, XN_MOM_SCAN_OVER, false, {}, 0);
    return 0;
}

// ---- writes ------------------------------------------------------------------------

int xn_mom_set(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return plat::module_write("xn_mom_set", platform::ModuleWrite::Set, client, db, msg);
}

int xn_mom_hmset(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return plat::module_write("xn_mom_hmset", platform::ModuleWrite::HmSet, client, db, msg);
}

int xn_mom_del(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return plat::module_write("xn_mom_del", platform::ModuleWrite::Del, client, db, msg);
}

int xn_mom_exists_sync(void *client, int db, const ProtobufCMessage *msg) {
    (void)client;
    if (auto rv = plat::fault("xn_mom_exists_sync", db)) return *rv;
    if (msg == nullptr || msg->descriptor == nullptr) return -1;
    plat::RecordKey k = plat::key_of(msg);
    return plat::store().get(st().module_member, db, msg->descriptor->name, k) ? 0 : -1;
}

// ---- data-sync brackets ------------------------------------------------------------

int xn_mom_dsbegin_sync(void *client, int db, const ProtobufCMessage *tmpl, int flags, int expire,
                        int timeout) {
    (void)client;
    (void)flags;
    (void)expire;
    (void)timeout;
    if (auto rv = plat::fault("xn_mom_dsbegin_sync", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr) return -1;
    const std::string type = tmpl->descriptor->name;
    st().open_brackets.emplace(db, type);
    plat::store().bracket_begin(st().module_member, db, type);
    return 0;
}

int xn_mom_dsend(void *client, int db, const ProtobufCMessage *tmpl, int flags, int a, int b) {
    (void)client;
    (void)flags;
    (void)a;
    (void)b;
    if (auto rv = plat::fault("xn_mom_dsend", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr) return -1;
    const std::string type = tmpl->descriptor->name;
    st().open_brackets.erase({db, type});
    plat::store().bracket_end(st().module_member, db, type);
    return 0;
}

}  // extern "C"

// ---- steering ------------------------------------------------------------------------

namespace platform {
namespace {

int host_write(int db, const std::string &type, const std::string &packed, bool field_form) {
    plat::RecordKey k;
    if (!plat::key_of_packed(type, packed, &k)) return -1;
    plat::store().write(st().view_member, db, type, k, packed, field_form);
    return 0;
}

StoredRecord to_record(int db, const plat::StoredEntry &e) {
    return StoredRecord{db, e.key.type, e.key.key, e.rec.packed, e.rec.field_form};
}

}  // namespace

int db_set(int db, const std::string &type, const std::string &packed) {
    return host_write(db, type, packed, false);
}

int db_hmset(int db, const std::string &type, const std::string &packed) {
    return host_write(db, type, packed, true);
}

int db_del(int db, const std::string &type, const std::string &packed) {
    plat::RecordKey k;
    if (!plat::key_of_packed(type, packed, &k)) return -1;
    plat::store().del(st().view_member, db, type, k);
    return 0;
}

std::vector<StoredRecord> db_records(int db, const std::string &type) {
    std::vector<StoredRecord> out;
    for (const auto &e : plat::store().records(st().view_member, db, type)) {
        out.push_back(to_record(db, e));
    }
    return out;
}

std::optional<StoredRecord> db_get(int db, const std::string &type, const std::string &packed) {
    plat::RecordKey k;
    if (!plat::key_of_packed(type, packed, &k)) return std::nullopt;
    auto e = plat::store().get(st().view_member, db, type, k);
    if (!e) return std::nullopt;
    return to_record(db, *e);
}

void db_disconnect(int db) {
    plat::Session &s = st().sessions[db];
    s.down = true;
    if (s.disconn_cb != nullptr) {
        xn_mom_disconn_cb_t cb = s.disconn_cb;
        plat::enqueue([cb] { cb(); });
    }
}

void db_reconnect(int db, int type) {
    plat::State &state = st();
    // The resumed session subscribes again: the old subscriptions and whatever
    // they still had queued must not deliver a second time.
    plat::drop_subs([db](const plat::Subscription &sub) { return sub.db == db; });
    plat::Session &s = state.sessions[db];
    s.down = false;
    if (s.reconn_cb != nullptr) {
        xn_mom_reconn_cb_t cb = s.reconn_cb;
        void *client = s.client != nullptr ? s.client : host_handle();
        plat::enqueue([cb, client, db, type] { cb(client, db, type); });
    }
}

int db_use_redis(const std::string &address, std::string *error) {
    std::unique_ptr<plat::Store> s = plat::make_redis_store(address, error);
    if (!s) return -1;
    st().store = std::move(s);
    st().on_redis = true;
    return 0;
}

bool db_on_redis() {
    return st().on_redis;
}

void db_member(int member) {
    st().module_member = st().view_member = member;
}

void db_view(int member) {
    st().view_member = member;
}

int db_view_member() {
    return st().view_member;
}

void set_record_text(
    std::function<std::string(const std::string &type, const std::string &packed)> fn) {
    st().text_form = std::move(fn);
}

namespace {

int watch_event(void *client, xn_mom_msg_t *msg) {
    if (msg == nullptr || msg->err != 0 || msg->data == nullptr) return 0;
    const auto *rec = msg->cmd == XN_MOM_CMD_HMSET
                          ? static_cast<const xn_mom_entry_t *>(msg->data)->msg
                          : static_cast<const ProtobufCMessage *>(msg->data);
    (*static_cast<WatchFn *>(client))(msg->cmd, plat::pack(rec));
    return 0;
}

}  // namespace

void db_watch(int member, int db, const std::string &type, WatchFn fn) {
    const ProtobufCMessageDescriptor *desc = plat::find_descriptor(type);
    if (desc == nullptr) return;
    plat::State &s = st();
    s.watches.push_back(std::move(fn));
    plat::Subscription sub{s.next_id++, db, type, desc, watch_event, &s.watches.back(), nullptr};
    plat::store().subscribe(member, sub);
    s.subs.push_back(std::move(sub));
}

void db_command_log(bool on) {
    plat::store().command_log(on);
}

std::vector<std::vector<std::string>> db_take_command_log() {
    return plat::store().take_command_log();
}

void db_replay_commands(const std::vector<std::vector<std::string>> &log) {
    plat::store().replay_commands(log);
}

bool db_wait(int ms) {
    plat::store().flush();
    return plat::store().poll(ms);
}

bool db_connected(int db) {
    auto it = st().sessions.find(db);
    return it != st().sessions.end() && it->second.connected && !it->second.down;
}

const std::vector<ModuleWrite> &module_writes() {
    return st().module_writes;
}

void clear_module_writes() {
    st().module_writes.clear();
}

}  // namespace platform
