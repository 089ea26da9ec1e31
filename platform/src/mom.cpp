// Object-database client: sessions, subscriptions and scans, data-sync brackets,
// over whichever store holds the records (store.h).
//
// Whoever writes (the module or another component played by the host), every
// subscription of that database to the record's type gets the event, queued. A
// record handed to a callback is unpacked with the subscriber's own descriptor
// and freed again when the callback returns, as the real client owns it for
// that long.
//
// Sessions that resume: while a session is away (disconnected), the events of
// its subscriptions wait. When its reconnect callback (type 2) subscribes
// again to the same database and type with the same handler, the subscription
// goes on where it was: it delivers every write and deletion it missed, once,
// in write order, then the data-sync request. A subscription the callback does
// not make again stays away until the process makes it again (later, e.g. when
// a data sync ends), and resumes the same way then. Any other reconnect type
// drops the session's subscriptions at once.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <utility>

#include "store.h"

namespace platform {

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
                    // Another process's bytes: logged, throttled (one line a second).
                    static time_t last = 0;
                    static unsigned long held = 0;
                    if (time(nullptr) != last) {
                        std::fprintf(stderr,
                                     "xn_mom: %s record does not decode, event %d dropped (%lu "
                                     "more since the last line)\n",
                                     desc->name, cmd, held);
                        last = time(nullptr);
                        held = 0;
                    } else {
                        held++;
                    }
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
        sub_id, 0, front, cmd == XN_MOM_CMD_DEL);
}

void deliver(Subscription &sub, int cmd, std::string packed, bool front) {
    if (sub.away) {
        sub.missed.emplace_back(cmd, std::move(packed));
        return;
    }
    queue_event(sub.desc, sub.cb, sub.client, cmd, 0, true, std::move(packed), sub.id, front);
}

void notify(int db, const std::string &type, int cmd, const std::string &packed) {
    for (Subscription &sub : st().subs) {
        if (sub.db == db && sub.type == type) deliver(sub, cmd, packed);
    }
}

std::string hex(const std::string &s) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(s.size() * 2);
    for (unsigned char c : s) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

Store &store() {
    State &s = st();
    if (!s.store) s.store = make_embedded_store();
    return *s.store;
}

std::string record_text(const Record &rec) {
    const auto &fn = st().text_form;
    return fn ? fn(rec.type, rec.packed) : std::string();
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

int module_write(const char *op, ModuleWrite::Op kind, void *client, int db,
                 const ProtobufCMessage *msg) {
    (void)client;
    if (auto rv = fault(op, db)) return *rv;
    if (msg == nullptr || msg->descriptor == nullptr) return -1;
    ModuleWrite w{record_of(db, msg, kind == ModuleWrite::HmSet ? Form::Fields : Form::Whole),
                  kind};
    if (st().keep_module_writes) st().module_writes.push_back(w);
    if (kind == ModuleWrite::Del) return store().del(st().module_member, w);
    return store().write(st().module_member, w);
}

// The away subscription that a resumed session's callback makes again.
Subscription *resumable(int db, const std::string &type, xn_mom_event_cb_t cb, void *client) {
    for (Subscription &sub : st().subs) {
        if (sub.away && sub.db == db && sub.type == type && sub.cb == cb && sub.client == client &&
            !st().sessions[db].down) {
            return &sub;
        }
    }
    return nullptr;
}

}  // namespace
}  // namespace platform

using platform::st;

extern "C" {

// ---- sessions --------------------------------------------------------------------

int xn_mom_client_connect_sync(void *client, int db) {
    if (auto rv = platform::fault("xn_mom_client_connect_sync", db)) return *rv;
    platform::Session &s = st().sessions[db];
    s.client = client;
    s.connected = true;
    s.down = false;
    return 0;
}

int xn_mom_client_connect(void *client, int db, xn_mom_conn_cb_t cb) {
    if (auto rv = platform::fault("xn_mom_client_connect", db)) return *rv;
    platform::Session &s = st().sessions[db];
    s.client = client;
    s.connected = true;
    s.down = false;
    s.conn_cb = cb;
    if (cb != nullptr) platform::enqueue([cb, client] { cb(client); });
    return 0;
}

int xn_mom_client_set_disconnect_cb(void *client, int db, xn_mom_disconn_cb_t cb) {
    if (auto rv = platform::fault("xn_mom_client_set_disconnect_cb", db)) return *rv;
    platform::Session &s = st().sessions[db];
    if (s.client == nullptr) s.client = client;
    s.disconn_cb = cb;
    return 0;
}

int xn_mom_client_set_reconnect_cb(void *client, int db, xn_mom_reconn_cb_t cb) {
    if (auto rv = platform::fault("xn_mom_client_set_reconnect_cb", db)) return *rv;
    platform::Session &s = st().sessions[db];
    if (s.client == nullptr) s.client = client;
    s.reconn_cb = cb;
    return 0;
}

// ---- subscriptions and scans -----------------------------------------------------

int xn_mom_subscribe(void *client, int db, const ProtobufCMessage *tmpl, int flags,
                     xn_mom_event_cb_t cb, void *user) {
    (void)flags;
    if (auto rv = platform::fault("xn_mom_subscribe", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr || cb == nullptr) return -1;
    platform::State &s = st();
    if (platform::Subscription *old = platform::resumable(db, tmpl->descriptor->name, cb, client)) {
        // Everything written meanwhile first, so that what it missed is whole.
        platform::store().catch_up();
        old->away = false;
        old->desc = tmpl->descriptor;
        old->user = user;
        for (auto &[cmd, packed] : std::exchange(old->missed, {})) {
            platform::queue_event(old->desc, cb, client, cmd, 0, true, std::move(packed), old->id);
        }
        platform::queue_event(old->desc, cb, client, XN_MOM_CMD_DS, 0, false, {}, old->id);
        return 0;
    }
    platform::Subscription sub{s.next_id++, db,  tmpl->descriptor->name, tmpl->descriptor, cb,
                               client,      user};
    sub.member = s.module_member;
    // Subscribing again to the same type with the same handler replaces the
    // earlier subscription: a repeated connect must not get every later event
    // twice.
    // Deletions it still had queued (a resumed subscription's missed ones) are
    // not in the stored records the new one starts from: they go to the new one.
    auto replaced = [&](const platform::Subscription &old) {
        return old.db == db && old.type == sub.type && old.cb == cb && old.client == client;
    };
    for (const platform::Subscription &old : s.subs) {
        if (!replaced(old)) continue;
        for (platform::QueueItem &item : s.queue) {
            if (item.sub_id == old.id && item.deletion) item.sub_id = sub.id;
        }
    }
    platform::drop_subs(replaced);
    if (!platform::store().subscribe(s.module_member, sub)) {
        // Nothing half delivered: what the snapshot queued goes with it.
        const uint64_t id = sub.id;
        std::erase_if(s.queue, [id](const platform::QueueItem &item) { return item.sub_id == id; });
        return -1;
    }
    s.subs.push_back(std::move(sub));
    return 0;
}

int xn_mom_scan(void *client, int db, const ProtobufCMessage *tmpl, int flags, xn_mom_event_cb_t cb,
                void *user) {
    (void)flags;
    (void)user;
    if (auto rv = platform::fault("xn_mom_scan", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr || cb == nullptr) return -1;
    const ProtobufCMessageDescriptor *desc = tmpl->descriptor;
    std::vector<platform::Record> records;
    // A scan the store could not read whole is a failed call, never a short scan.
    if (!platform::store().records(st().module_member, db, desc->name, &records)) return -1;
    for (auto &rec : records) {
        platform::queue_event(desc, cb, client, platform::set_cmd(rec.form), 0, true,
                              std::move(rec.packed), 0);
    }
    platform::queue_event(desc, cb, client, 0, XN_MOM_SCAN_OVER, false, {}, 0);
    return 0;
}

// ---- writes ------------------------------------------------------------------------

int xn_mom_set(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return platform::module_write("xn_mom_set", platform::ModuleWrite::Set, client, db, msg);
}

int xn_mom_hmset(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return platform::module_write("xn_mom_hmset", platform::ModuleWrite::HmSet, client, db, msg);
}

int xn_mom_del(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout) {
    (void)flags;
    (void)timeout;
    return platform::module_write("xn_mom_del", platform::ModuleWrite::Del, client, db, msg);
}

int xn_mom_exists_sync(void *client, int db, const ProtobufCMessage *msg) {
    (void)client;
    if (auto rv = platform::fault("xn_mom_exists_sync", db)) return *rv;
    if (msg == nullptr || msg->descriptor == nullptr) return -1;
    return platform::store().get(st().module_member, platform::record_of(db, msg)) ? 0 : -1;
}

// ---- data-sync brackets ------------------------------------------------------------

int xn_mom_dsbegin_sync(void *client, int db, const ProtobufCMessage *tmpl, int flags, int expire,
                        int timeout) {
    (void)client;
    (void)flags;
    (void)expire;
    (void)timeout;
    if (auto rv = platform::fault("xn_mom_dsbegin_sync", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr) return -1;
    const std::string type = tmpl->descriptor->name;
    st().open_brackets.emplace(db, type);
    platform::store().bracket_begin(st().module_member, db, type);
    return 0;
}

int xn_mom_dsend(void *client, int db, const ProtobufCMessage *tmpl, int flags, int a, int b) {
    (void)client;
    (void)flags;
    (void)a;
    (void)b;
    if (auto rv = platform::fault("xn_mom_dsend", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr) return -1;
    const std::string type = tmpl->descriptor->name;
    st().open_brackets.erase({db, type});
    platform::store().bracket_end(st().module_member, db, type);
    return 0;
}

}  // extern "C"

// ---- sessions lost and back (steering) --------------------------------------------

namespace platform {

void db_disconnect(int db) {
    platform::Session &s = st().sessions[db];
    s.down = true;
    for (platform::Subscription &sub : st().subs) {
        sub.away = sub.away || (sub.db == db && sub.client == s.client);
    }
    if (s.disconn_cb != nullptr) {
        xn_mom_disconn_cb_t cb = s.disconn_cb;
        platform::enqueue([cb] { cb(); });
    }
}

void db_reconnect(int db, int type) {
    platform::State &state = st();
    platform::Session &s = state.sessions[db];
    s.down = false;
    // A session that cannot be resumed loses its subscriptions now; a resumed
    // one keeps those its reconnect callback makes again (see the top).
    auto stale = [db](const platform::Subscription &sub) { return sub.db == db && sub.away; };
    if (type != XN_MOM_RECONN_RESUME) {
        platform::drop_subs([db](const platform::Subscription &sub) { return sub.db == db; });
    }
    if (s.reconn_cb == nullptr) {
        platform::drop_subs(stale);
        return;
    }
    // A subscription the callback does not make again stays away, keeping
    // what it misses, until the process makes it again: the module makes
    // some of its subscriptions later than its reconnect callback (when a
    // data sync ends), and a deletion missed meanwhile must still reach them.
    xn_mom_reconn_cb_t cb = s.reconn_cb;
    void *client = s.client != nullptr ? s.client : host_handle();
    platform::enqueue([cb, client, db, type] { cb(client, db, type); });
}

bool db_connected(int db) {
    auto it = st().sessions.find(db);
    return it != st().sessions.end() && it->second.connected && !it->second.down;
}

}  // namespace platform
