// The embedded store: every database in this process, kept in a map per
// database, optionally saved in a file after every change (--db PATH).
//
// Records are kept packed with the form they were written in. A write queues
// its events at once, so they follow whatever the writer queued before it.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "store.h"

namespace platform {
namespace {

// A field of the file: never an empty token.
std::string hex_token(const std::string &s) {
    return s.empty() ? "-" : hex(s);
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

int form_cmd(const Stored &rec) {
    return rec.field_form ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET;
}

class EmbeddedStore : public Store {
  public:
    int write(int, int db, const std::string &type, const RecordKey &k, const std::string &packed,
              bool field_form) override {
        Stored &rec = st().dbs[db][StoreKey{type, k.order, k.key}];
        rec.packed = packed;
        rec.field_form = field_form;
        rec.expired = false;  // a write inside a data-sync bracket confirms the record
        notify(db, type, form_cmd(rec), rec.packed);
        save_dbs();
        return 0;
    }

    int del(int, int db, const std::string &type, const RecordKey &k) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return 0;
        auto it = dbit->second.find(StoreKey{type, k.order, k.key});
        if (it == dbit->second.end()) return 0;  // nothing there: nothing to tell anyone
        std::string packed = std::move(it->second.packed);
        dbit->second.erase(it);
        notify(db, type, XN_MOM_CMD_DEL, packed);
        save_dbs();
        return 0;
    }

    bool records(int, int db, const std::string &type, std::vector<StoredEntry> *out) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return true;
        auto it =
            type.empty() ? dbit->second.begin() : dbit->second.lower_bound(StoreKey{type, "", ""});
        for (; it != dbit->second.end() && (type.empty() || it->first.type == type); ++it) {
            out->push_back(StoredEntry{it->first, it->second});
        }
        return true;
    }

    std::optional<StoredEntry> get(int, int db, const std::string &type,
                                   const RecordKey &k) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return std::nullopt;
        auto it = dbit->second.find(StoreKey{type, k.order, k.key});
        if (it == dbit->second.end()) return std::nullopt;
        return StoredEntry{it->first, it->second};
    }

    bool subscribe(int member, Subscription &sub) override {
        // What is already there first, then the request to sync up.
        std::vector<StoredEntry> stored;
        records(member, sub.db, sub.type, &stored);
        for (const StoredEntry &e : stored) {
            queue_event(sub.desc, sub.cb, sub.client, form_cmd(e.rec), 0, true, e.rec.packed,
                        sub.id);
        }
        queue_event(sub.desc, sub.cb, sub.client, XN_MOM_CMD_DS, 0, false, {}, sub.id);
        return true;
    }

    void bracket_begin(int, int db, const std::string &type) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return;
        for (auto it = dbit->second.lower_bound(StoreKey{type, "", ""});
             it != dbit->second.end() && it->first.type == type; ++it) {
            it->second.expired = true;
        }
    }

    void bracket_end(int, int db, const std::string &type) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return;
        Database &records = dbit->second;
        bool changed = false;
        for (auto it = records.lower_bound(StoreKey{type, "", ""});
             it != records.end() && it->first.type == type;) {
            if (!it->second.expired) {
                ++it;
                continue;
            }
            std::string packed = std::move(it->second.packed);
            it = records.erase(it);
            notify(db, type, XN_MOM_CMD_DEL, packed);
            changed = true;
        }
        if (changed) save_dbs();
    }

    void drop_instance() override {
        // A bracket the module opened dies with it; its records are no longer doomed.
        for (auto &[db, records] : st().dbs) {
            for (auto &[k, rec] : records) rec.expired = false;
        }
    }
};

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
                out << db << ' ' << k.type << ' ' << (rec.field_form ? 1 : 0) << ' '
                    << hex_token(k.key) << ' ' << hex_token(k.order) << ' ' << hex_token(rec.packed)
                    << '\n';
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

std::unique_ptr<Store> make_embedded_store() {
    return std::make_unique<EmbeddedStore>();
}

int db_open_file(const std::string &path) {
    platform::State &s = platform::st();
    // A module that ends the process from a callback (exit 77) must not lose
    // what that callback wrote.
    static const bool flush_at_exit = std::atexit([] { platform::flush_dbs(); }) == 0;
    (void)flush_at_exit;
    platform::flush_dbs();  // whatever belongs to the file attached so far
    s.db_path = path;
    s.db_dirty = false;
    if (path.empty()) return 0;
    std::ifstream probe(path);
    if (!probe) return 0;  // created by the first change
    std::map<int, platform::Database> loaded;
    if (!platform::load_dbs(path, &loaded)) {
        std::fprintf(stderr, "xn_mom: %s is not a database file\n", path.c_str());
        s.db_path.clear();  // do not overwrite what we could not read
        return -1;
    }
    s.dbs = std::move(loaded);
    return 0;
}

}  // namespace platform
