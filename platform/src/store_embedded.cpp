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
        Kept kept;
        std::string key, order, packed;
        Record &rec = kept.rec;
        if (!(ls >> db >> rec.type >> form >> key >> order >> packed)) return false;
        if (!unhex(key, &rec.key) || !unhex(order, &rec.order) || !unhex(packed, &rec.packed)) {
            return false;
        }
        rec.db = db;
        rec.form = form != 0 ? Form::Fields : Form::Whole;
        (*out)[db].insert_or_assign(RecordId(rec.id()), std::move(kept));
    }
    return true;
}

// The first place of `type` in a database.
Database::iterator first_of(Database &records, const std::string &type) {
    return records.lower_bound(RecordId{type, "", ""});
}

class EmbeddedStore : public Store {
  public:
    int write(int, const Record &rec) override {
        Kept &kept = st().dbs[rec.db][RecordId(rec.id())];
        kept.rec = rec;
        kept.expired = false;  // a write inside a data-sync bracket confirms the record
        notify(rec.db, rec.type, set_cmd(rec.form), rec.packed);
        save_dbs();
        return 0;
    }

    int del(int, const Record &rec) override {
        auto dbit = st().dbs.find(rec.db);
        if (dbit == st().dbs.end()) return 0;
        auto it = dbit->second.find(rec.id());
        if (it == dbit->second.end()) return 0;  // nothing there: nothing to tell anyone
        std::string packed = std::move(it->second.rec.packed);
        dbit->second.erase(it);
        notify(rec.db, rec.type, XN_MOM_CMD_DEL, packed);
        save_dbs();
        return 0;
    }

    bool records(int, int db, const std::string &type, std::vector<Record> *out) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return true;
        auto it = type.empty() ? dbit->second.begin() : first_of(dbit->second, type);
        for (; it != dbit->second.end() && (type.empty() || it->second.rec.type == type); ++it) {
            out->push_back(it->second.rec);
        }
        return true;
    }

    std::optional<Record> get(int, const Record &rec) override {
        auto dbit = st().dbs.find(rec.db);
        if (dbit == st().dbs.end()) return std::nullopt;
        auto it = dbit->second.find(rec.id());
        if (it == dbit->second.end()) return std::nullopt;
        return it->second.rec;
    }

    bool subscribe(int member, Subscription &sub) override {
        // What is already there first, then the request to sync up.
        std::vector<Record> stored;
        records(member, sub.db, sub.type, &stored);
        for (Record &rec : stored) {
            queue_event(sub.desc, sub.cb, sub.client, set_cmd(rec.form), 0, true,
                        std::move(rec.packed), sub.id);
        }
        queue_event(sub.desc, sub.cb, sub.client, XN_MOM_CMD_DS, 0, false, {}, sub.id);
        return true;
    }

    void bracket_begin(int, int db, const std::string &type) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return;
        for (auto it = first_of(dbit->second, type);
             it != dbit->second.end() && it->second.rec.type == type; ++it) {
            it->second.expired = true;
        }
    }

    void bracket_end(int, int db, const std::string &type) override {
        auto dbit = st().dbs.find(db);
        if (dbit == st().dbs.end()) return;
        Database &records = dbit->second;
        bool changed = false;
        for (auto it = first_of(records, type);
             it != records.end() && it->second.rec.type == type;) {
            if (!it->second.expired) {
                ++it;
                continue;
            }
            std::string packed = std::move(it->second.rec.packed);
            it = records.erase(it);
            notify(db, type, XN_MOM_CMD_DEL, packed);
            changed = true;
        }
        if (changed) save_dbs();
    }

    void drop_instance() override {
        // A bracket the module opened dies with it; its records are no longer doomed.
        for (auto &[db, records] : st().dbs) {
            for (auto &[id, kept] : records) kept.expired = false;
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
            for (const auto &[id, kept] : records) {
                const Record &rec = kept.rec;
                out << db << ' ' << rec.type << ' ' << (rec.form == Form::Fields ? 1 : 0) << ' '
                    << hex_token(rec.key) << ' ' << hex_token(rec.order) << ' '
                    << hex_token(rec.packed) << '\n';
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
