// Object-database client: sessions, the keyed store of every numbered database,
// subscriptions and scans, data-sync brackets, and the file the store can live in.
//
// Records are kept packed with the form they were written in. Whoever writes
// (the module or another component played by the host), every subscription of
// that database to the record's type gets the event, queued. A record handed to
// a callback is unpacked with the subscriber's own descriptor and freed again
// when the callback returns, as the real client owns it for that long.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "platform_state.h"

namespace plat {
namespace {

// Queue one database event for a subscriber (or a scan callback). An empty
// `packed` with has_record false is an event without a record.
void queue_event(const ProtobufCMessageDescriptor *desc, xn_mom_event_cb_t cb, void *client,
                 int cmd, uint32_t scan_over, bool has_record, std::string packed,
                 uint64_t sub_id) {
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
        sub_id);
}

int form_cmd(const Stored &rec) {
    return rec.field_form ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET;
}

void notify(int db, const std::string &type, int cmd, const std::string &packed) {
    for (const Subscription &sub : st().subs) {
        if (sub.db != db || sub.type != type) continue;
        queue_event(sub.desc, sub.cb, sub.client, cmd, 0, true, packed, sub.id);
    }
}

void store_write(int db, const std::string &type, const RecordKey &k, std::string packed,
                 bool field_form) {
    Stored &rec = st().dbs[db][StoreKey{type, k.order, k.key}];
    rec.packed = std::move(packed);
    rec.field_form = field_form;
    rec.expired = false;  // a write inside a data-sync bracket confirms the record
    notify(db, type, form_cmd(rec), rec.packed);
    save_dbs();
}

void store_del(int db, const std::string &type, const RecordKey &k) {
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return;
    auto it = dbit->second.find(StoreKey{type, k.order, k.key});
    if (it == dbit->second.end()) return;  // nothing there: nothing to tell anyone
    std::string packed = std::move(it->second.packed);
    dbit->second.erase(it);
    notify(db, type, XN_MOM_CMD_DEL, packed);
    save_dbs();
}

// Records of one type in key order.
std::vector<std::pair<const StoreKey *, const Stored *>> records_of(int db,
                                                                    const std::string &type) {
    std::vector<std::pair<const StoreKey *, const Stored *>> out;
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return out;
    auto it = dbit->second.lower_bound(StoreKey{type, "", ""});
    for (; it != dbit->second.end() && it->first.type == type; ++it) {
        out.emplace_back(&it->first, &it->second);
    }
    return out;
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
        store_del(db, type, k);
    } else {
        store_write(db, type, k, std::move(packed), kind == platform::ModuleWrite::HmSet);
    }
    return 0;
}

// ---- persistence -----------------------------------------------------------------

std::string hex(const std::string &s) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(s.size() * 2 + 1);
    for (unsigned char c : s) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out.empty() ? "-" : out;  // never an empty token
}

bool unhex(const std::string &s, std::string *out) {
    out->clear();
    if (s == "-") return true;
    if (s.size() % 2 != 0) return false;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (size_t i = 0; i < s.size(); i += 2) {
        int hi = nibble(s[i]), lo = nibble(s[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out->push_back(static_cast<char>(hi << 4 | lo));
    }
    return true;
}

// One record a line: db type form key order packed (bytes in hex).
bool load_dbs(const std::string &path, std::map<int, Database> *out) {
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ls(line);
        int db, form;
        std::string type, key, order, packed;
        if (!(ls >> db >> type >> form >> key >> order >> packed)) return false;
        StoreKey sk{type, "", ""};
        Stored rec;
        if (!unhex(key, &sk.key) || !unhex(order, &sk.order) || !unhex(packed, &rec.packed)) {
            return false;
        }
        rec.field_form = form != 0;
        (*out)[db][sk] = std::move(rec);
    }
    return true;
}

}  // namespace

void save_dbs() {
    if (st().db_path.empty()) return;
    st().db_dirty = true;
    if (st().callback_depth == 0) flush_dbs();
}

void flush_dbs() {
    const std::string &path = st().db_path;
    if (path.empty() || !st().db_dirty) return;
    st().db_dirty = false;
    // Write aside and rename, so that a process ending mid-save leaves the old file.
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        if (!out) {
            std::fprintf(stderr, "xn_mom: cannot write %s\n", tmp.c_str());
            return;
        }
        out << "# dpm platform databases: db type form key order packed\n";
        for (const auto &[db, records] : st().dbs) {
            for (const auto &[k, rec] : records) {
                out << db << ' ' << k.type << ' ' << (rec.field_form ? 1 : 0) << ' ' << hex(k.key)
                    << ' ' << hex(k.order) << ' ' << hex(rec.packed) << '\n';
            }
        }
        if (!out.flush()) {
            std::fprintf(stderr, "xn_mom: cannot write %s\n", tmp.c_str());
            return;
        }
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::fprintf(stderr, "xn_mom: cannot rename %s\n", tmp.c_str());
    }
}

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
    s.subs.push_back(sub);
    // What is already there first, then the request to sync up.
    for (const auto &[k, rec] : plat::records_of(db, sub.type)) {
        plat::queue_event(sub.desc, cb, client, plat::form_cmd(*rec), 0, true, rec->packed, sub.id);
    }
    plat::queue_event(sub.desc, cb, client, XN_MOM_CMD_DS, 0, false, {}, sub.id);
    return 0;
}

int xn_mom_scan(void *client, int db, const ProtobufCMessage *tmpl, int flags, xn_mom_event_cb_t cb,
                void *user) {
    (void)flags;
    (void)user;
    if (auto rv = plat::fault("xn_mom_scan", db)) return *rv;
    if (tmpl == nullptr || tmpl->descriptor == nullptr || cb == nullptr) return -1;
    const ProtobufCMessageDescriptor *desc = tmpl->descriptor;
    for (const auto &[k, rec] : plat::records_of(db, desc->name)) {
        plat::queue_event(desc, cb, client, plat::form_cmd(*rec), 0, true, rec->packed, 0);
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
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return -1;
    return dbit->second.count(plat::StoreKey{msg->descriptor->name, k.order, k.key}) ? 0 : -1;
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
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return 0;
    for (auto it = dbit->second.lower_bound(plat::StoreKey{type, "", ""});
         it != dbit->second.end() && it->first.type == type; ++it) {
        it->second.expired = true;
    }
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
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return 0;
    plat::Database &records = dbit->second;
    bool changed = false;
    for (auto it = records.lower_bound(plat::StoreKey{type, "", ""});
         it != records.end() && it->first.type == type;) {
        if (!it->second.expired) {
            ++it;
            continue;
        }
        std::string packed = std::move(it->second.packed);
        it = records.erase(it);
        plat::notify(db, type, XN_MOM_CMD_DEL, packed);
        changed = true;
    }
    if (changed) plat::save_dbs();
    return 0;
}

}  // extern "C"

// ---- steering ------------------------------------------------------------------------

namespace platform {
namespace {

int host_write(int db, const std::string &type, const std::string &packed, bool field_form) {
    plat::RecordKey k;
    if (!plat::key_of_packed(type, packed, &k)) return -1;
    plat::store_write(db, type, k, packed, field_form);
    return 0;
}

StoredRecord to_record(int db, const plat::StoreKey &k, const plat::Stored &rec) {
    return StoredRecord{db, k.type, k.key, rec.packed, rec.field_form};
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
    plat::store_del(db, type, k);
    return 0;
}

std::vector<StoredRecord> db_records(int db, const std::string &type) {
    std::vector<StoredRecord> out;
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return out;
    for (const auto &[k, rec] : dbit->second) {
        if (type.empty() || k.type == type) out.push_back(to_record(db, k, rec));
    }
    return out;
}

std::optional<StoredRecord> db_get(int db, const std::string &type, const std::string &packed) {
    plat::RecordKey k;
    if (!plat::key_of_packed(type, packed, &k)) return std::nullopt;
    auto dbit = st().dbs.find(db);
    if (dbit == st().dbs.end()) return std::nullopt;
    auto it = dbit->second.find(plat::StoreKey{type, k.order, k.key});
    if (it == dbit->second.end()) return std::nullopt;
    return to_record(db, it->first, it->second);
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
    std::set<uint64_t> dropped;
    std::erase_if(state.subs, [&](const plat::Subscription &sub) {
        if (sub.db != db) return false;
        dropped.insert(sub.id);
        return true;
    });
    std::erase_if(state.queue,
                  [&](const plat::QueueItem &item) { return dropped.count(item.sub_id) != 0; });
    plat::Session &s = state.sessions[db];
    s.down = false;
    if (s.reconn_cb != nullptr) {
        xn_mom_reconn_cb_t cb = s.reconn_cb;
        void *client = s.client != nullptr ? s.client : host_handle();
        plat::enqueue([cb, client, db, type] { cb(client, db, type); });
    }
}

bool db_connected(int db) {
    auto it = st().sessions.find(db);
    return it != st().sessions.end() && it->second.connected && !it->second.down;
}

int db_open_file(const std::string &path) {
    plat::State &s = st();
    // A module that ends the process from a callback (exit 77) must not lose
    // what that callback wrote.
    static const bool flush_at_exit = std::atexit([] { plat::flush_dbs(); }) == 0;
    (void)flush_at_exit;
    plat::flush_dbs();  // whatever belongs to the file attached so far
    s.db_path = path;
    s.db_dirty = false;
    if (path.empty()) return 0;
    std::ifstream probe(path);
    if (!probe) return 0;  // created by the first change
    std::map<int, plat::Database> loaded;
    if (!plat::load_dbs(path, &loaded)) {
        std::fprintf(stderr, "xn_mom: %s is not a database file\n", path.c_str());
        s.db_path.clear();  // do not overwrite what we could not read
        return -1;
    }
    s.dbs = std::move(loaded);
    return 0;
}

const std::vector<ModuleWrite> &module_writes() {
    return st().module_writes;
}

void clear_module_writes() {
    st().module_writes.clear();
}

}  // namespace platform
