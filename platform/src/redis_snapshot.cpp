// Snapshots and scans on Redis: a type's records read in chunks of the key
// set (key order), so that the round-trip timeout bounds each chunk, not the
// whole read, and millions of keys complete. Each chunk is current at its own
// event ordinal; a fresh subscription remembers those (Skip), so that its
// snapshot and the events after it neither miss nor repeat a write. Key-set
// entries that name no record of ours (wrong form, another member's or
// another type's key, a key holding something else) are skipped and counted.
//
// A snapshot that cannot be read (the connection breaks under it) fails the
// subscription; the third failure in a row for the same type means this
// process cannot finish starting: its sessions are not resumed (reconnect
// type 1) and it says why.
#include <algorithm>
#include <cstdio>

#include "store_redis.h"

namespace platform::redis {

namespace {

constexpr const char *kChunk = "1000";
constexpr int kSnapshotTries = 3;

}  // namespace

bool RedisStore::read_type(int member, int db, const std::string &type, const TakeRecord &take,
                           Skip *skip) {
    const Names names_ = names(member, db, type);
    std::string from = "-";
    long long junk = 0;
    bool reloaded = false;
    for (;;) {
        drain();  // our own changes first
        if (!link_.up()) return false;
        link_.select(db);
        Reply r = call({"EVALSHA", link_.sha(kSnapshot), "1", names_.keys, std::to_string(db), from,
                        kChunk, names_.base});
        if (!r) return false;
        if (is_error(r.get())) {
            std::string error;
            if (!reloaded && str(r.get()).rfind("NOSCRIPT", 0) == 0 && link_.load_scripts(&error)) {
                reloaded = true;
                continue;
            }
            log_throttled("snapshot", "xn_mom: cannot read the " + type + " records of db " +
                                          std::to_string(db) + ": " + str(r.get()));
            return false;
        }
        if (r->type != REDIS_REPLY_ARRAY || r->elements < 3) return false;
        const uint64_t count = std::strtoull(str(r->element[0]).c_str(), nullptr, 10);
        const std::string last = str(r->element[1]);
        if (r->element[2]->integer < 0) {
            log_throttled("keys " + names_.keys,
                          "xn_mom: " + names_.keys + " in db " + std::to_string(db) +
                              " is not a sorted set: no " + type + " records can be read");
        } else {
            junk += r->element[2]->integer;
        }
        for (size_t i = 3; i + 2 < r->elements; i += 3) {
            take(str(r->element[i + 1]),
                 str(r->element[i + 2]) == "1" ? Form::Fields : Form::Whole);
        }
        if (skip != nullptr) {
            skip->chunks.emplace_back(last, count);
            skip->upto = std::max(skip->upto, count);
        }
        if (last.empty()) break;
        if (from == "-") {
            std::fprintf(stderr,
                         "xn_mom: %s in db %d has more than %s key-set entries: read in chunks\n",
                         type.c_str(), db, kChunk);
        }
        from = "(" + last;
    }
    if (junk > 0) {
        log_throttled("junk " + names_.keys, "xn_mom: " + std::to_string(junk) + " entries of " +
                                                 names_.keys + " in db " + std::to_string(db) +
                                                 " name no record of ours: skipped");
    }
    return true;
}

bool RedisStore::subscribe(int member, Subscription &sub) {
    ensure_started();
    Skip skip;
    const std::string what = sub.type + " in db " + std::to_string(sub.db);
    bool ok = started_ && read_type(
                              member, sub.db, sub.type,
                              [&](std::string packed, Form form) {
                                  queue_event(sub.desc, sub.cb, sub.client, set_cmd(form), 0, true,
                                              std::move(packed), sub.id);
                              },
                              &skip);
    if (!ok) {
        // Not left without it: the session is taken down and resumed, and the
        // subscription made again.
        if (link_.up()) {
            link_.close("the snapshot of " + what + " failed");
            on_lost();
        }
        if (++snapshot_failures_[what] >= kSnapshotTries && give_up_.empty()) {
            give_up_ = "the records of " + what + " could not be read in " +
                       std::to_string(kSnapshotTries) + " tries (each reply must come within " +
                       std::to_string(link_.timeout_ms()) + " ms, --redis-timeout)";
            std::fprintf(stderr, "xn_mom: %s: this process cannot finish starting\n",
                         give_up_.c_str());
        }
        return false;
    }
    snapshot_failures_.erase(what);
    queue_event(sub.desc, sub.cb, sub.client, XN_MOM_CMD_DS, 0, false, {}, sub.id);
    if (skip.upto > read_.n) skips_[sub.id] = std::move(skip);
    return true;
}

bool RedisStore::records(int member, int db, const std::string &type, std::vector<Record> *out) {
    std::vector<std::string> types{type};
    if (type.empty()) {
        types.clear();
        link_.select(db);
        drain();
        Reply r = call({"SMEMBERS", prefix(member, db) + "_types"});
        if (!r) return false;
        for (size_t i = 0; r->type == REDIS_REPLY_ARRAY && i < r->elements; i++) {
            types.push_back(str(r->element[i]));
        }
        std::sort(types.begin(), types.end());
    }
    for (const std::string &t : types) {
        if (find_descriptor(t) == nullptr) {
            log_throttled("type " + t, "xn_mom: db " + std::to_string(db) +
                                           " names an unknown record type " + t + ": skipped");
            continue;
        }
        bool ok = read_type(
            member, db, t,
            [&](std::string packed, Form form) {
                std::optional<Record> rec = make_record(db, t, std::move(packed), form);
                if (!rec) {
                    log_throttled("decode " + t,
                                  "xn_mom: a stored " + t + " record does not decode: skipped");
                    return;
                }
                out->push_back(std::move(*rec));
            },
            nullptr);
        if (!ok) {
            out->clear();
            return false;
        }
    }
    return true;
}

std::optional<Record> RedisStore::get(int member, const Record &rec) {
    const Names n = names(member, rec);
    const int db = rec.db;
    drain();
    link_.select(db);
    Reply r = call({"HMGET", n.record, "packed", "form"});
    if (r && is_error(r.get())) {
        log_throttled("get " + n.record, "xn_mom: " + n.record + " in db " + std::to_string(db) +
                                             " is not a record: " + str(r.get()));
    }
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[0]->type != REDIS_REPLY_STRING) {
        return std::nullopt;
    }
    Record got = rec;
    got.packed = str(r->element[0]);
    got.form = str(r->element[1]) == "1" ? Form::Fields : Form::Whole;
    return got;
}

}  // namespace platform::redis
