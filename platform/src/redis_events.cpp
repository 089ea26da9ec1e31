// The one event stream (_events in database 15): every change of every
// process, in the order the server applied them, each entry numbered by an
// ordinal that has no holes. A process reads it from one position, so its
// subscriptions get events in write order across databases and types; it
// skips, without keeping them, the events of types it does not watch.
//
// An entry whose ordinal is not the next one means entries were trimmed away
// or removed before this process read them: that is never passed over (see
// cannot_resume in store_redis.cpp).
//
// The events of this process's own writes keep their place in the callback
// queue: a placeholder stands there and, when it runs, reads the stream up to
// its write and delivers what it read. Other processes' events are read when
// the queue is empty (poll).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "store_redis.h"

namespace platform::redis {

namespace {

constexpr int kChunk = 1000;
// Chunks read at one go: a process far behind queues at most this many
// thousand events before it runs them (and reads on at the next poll).
constexpr int kRounds = 10;

bool parse_u64(const std::string &s, uint64_t *out) {
    if (s.empty() || s.size() > 19 || s.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *out = std::strtoull(s.c_str(), nullptr, 10);
    return true;
}

// A subscription's snapshot already holds the event of its key at ordinal n.
bool covered(const Skip &skip, const std::string &key, uint64_t n) {
    for (const auto &[last, ordinal] : skip.chunks) {
        if (last.empty() || key <= last) return n <= ordinal;
    }
    return false;
}

}  // namespace

void RedisStore::ensure_started() {
    if (started_ || !link_.up()) return;
    if (load_unit()) started_ = true;
}

bool RedisStore::read_events(uint64_t upto, int wait_ms, bool front) {
    ensure_started();
    const uint64_t resets = resets_;
    const uint64_t last = upto == 0 ? UINT64_MAX : upto;
    bool any = take(last, front);
    // A blocking read must end well within the round-trip timeout.
    wait_ms = std::min(wait_ms, link_.timeout_ms() / 2);
    for (int round = 0; started_ && link_.up() && (upto != 0 || round < kRounds); ++round) {
        if (upto != 0 && fetched_.n >= upto) break;
        const int got = fetch(wait_ms);
        wait_ms = 0;
        if (resets_ != resets) return any;  // a gap: the position was set anew
        any |= take(last, front);
        if (got < kChunk) break;
    }
    return any;
}

int RedisStore::fetch(int wait_ms) {
    drain();
    if (!link_.up()) return -1;
    link_.select(kEventDb);
    std::vector<std::string> cmd{"XREAD", "COUNT", std::to_string(kChunk)};
    if (wait_ms > 0) cmd.insert(cmd.end(), {"BLOCK", std::to_string(wait_ms)});
    cmd.insert(cmd.end(), {"STREAMS", "_events", fetched_.id});
    Reply r = call(cmd);
    if (!r) return -1;
    if (is_error(r.get())) {
        log_throttled("read", "xn_mom: cannot read the event stream _events: " + str(r.get()));
        // Not deaf for good and not spinning: try again at the next poll.
        if (wait_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
        return -1;
    }
    if (r->type != REDIS_REPLY_ARRAY || r->elements == 0 ||
        r->element[0]->type != REDIS_REPLY_ARRAY || r->element[0]->elements != 2 ||
        r->element[0]->element[1]->type != REDIS_REPLY_ARRAY) {
        return 0;
    }
    const redisReply *entries = r->element[0]->element[1];
    for (size_t i = 0; i < entries->elements; i++) {
        const redisReply *e = entries->element[i];
        if (e->type != REDIS_REPLY_ARRAY || e->elements != 2 ||
            e->element[0]->type != REDIS_REPLY_STRING) {
            continue;
        }
        Ahead a;
        a.id = fetched_.id = str(e->element[0]);
        const redisReply *kv = e->element[1];
        // What decides whether the entry is kept is read first: most entries
        // are of types nobody here watches, and are passed over unread.
        auto value = [kv](const char *name) -> std::optional<std::string> {
            for (size_t j = 0; kv->type == REDIS_REPLY_ARRAY && j + 1 < kv->elements; j += 2) {
                const redisReply *k = kv->element[j];
                if (k->type == REDIS_REPLY_STRING && std::strcmp(k->str, name) == 0) {
                    return str(kv->element[j + 1]);
                }
            }
            return std::nullopt;
        };
        if (!parse_u64(value("n").value_or(""), &a.n)) {
            log_throttled("entry",
                          "xn_mom: entry " + a.id + " of _events is not an event of ours: skipped");
            continue;
        }
        if (a.n != fetched_.n + 1) {
            gap("the event stream went from ordinal " + std::to_string(fetched_.n) + " to " +
                std::to_string(a.n) +
                " (entries trimmed or removed before this process read them)");
            return -1;
        }
        fetched_.n = a.n;
        // Kept until its turn only what someone here takes in: another
        // process's unit changes, and events of a type a subscription watches
        // (one made later starts from a snapshot that holds this event).
        std::map<std::string, std::string> head;
        for (const char *name : {"kind", "origin", "db", "type"}) {
            if (auto v = value(name)) head[name] = std::move(*v);
        }
        const bool unit = head.count("kind") != 0;
        if (!(unit ? head["origin"] != origin_ : watched_type(head))) continue;
        for (size_t j = 0; kv->type == REDIS_REPLY_ARRAY && j + 1 < kv->elements; j += 2) {
            a.f[str(kv->element[j])] = str(kv->element[j + 1]);
        }
        ahead_.push_back(std::move(a));
    }
    return static_cast<int>(entries->elements);
}

bool RedisStore::take(uint64_t upto, bool front) {
    bool any = false;
    while (!ahead_.empty() && ahead_.front().n <= upto) {
        Ahead a = std::move(ahead_.front());
        ahead_.pop_front();
        read_ = Pos{a.id, a.n};
        for (auto it = skips_.begin(); it != skips_.end();) {
            it = it->second.upto <= a.n ? skips_.erase(it) : std::next(it);
        }
        if (a.f.count("kind") != 0) {
            any |= take_unit(a.f);
        } else {
            route(a.f, a.n, front);
            any = true;
        }
    }
    if (ahead_.empty() && read_.n < fetched_.n && fetched_.n <= upto) read_ = fetched_;
    return any;
}

bool RedisStore::watched_type(const std::map<std::string, std::string> &f) const {
    auto db = f.find("db"), type = f.find("type");
    if (db == f.end() || type == f.end()) return true;  // route() tells what is wrong
    for (const Subscription &sub : st().subs) {
        if (std::to_string(sub.db) == db->second &&
            prefix(sub.member, sub.db) + sub.type == type->second) {
            return true;
        }
    }
    return false;
}

void RedisStore::route(const std::map<std::string, std::string> &f, uint64_t n, bool front) {
    auto field = [&](const char *name) {
        auto it = f.find(name);
        return it == f.end() ? std::string() : it->second;
    };
    uint64_t db = 0, cmd = 0;
    if (!parse_u64(field("db"), &db) || db > 15 || !parse_u64(field("cmd"), &cmd) ||
        (cmd != XN_MOM_CMD_SET && cmd != XN_MOM_CMD_DEL && cmd != XN_MOM_CMD_HMSET) ||
        f.count("packed") == 0) {
        log_throttled("entry",
                      "xn_mom: entry " + read_.id + " of _events is not an event of ours: skipped");
        return;
    }
    const std::string type = field("type"), key = field("key");
    for (Subscription &sub : st().subs) {
        if (sub.db != static_cast<int>(db) || prefix(sub.member, sub.db) + sub.type != type)
            continue;
        auto skip = skips_.find(sub.id);
        if (skip != skips_.end() && covered(skip->second, key, n)) continue;
        deliver(sub, static_cast<int>(cmd), field("packed"), front);
    }
}

void RedisStore::placeholder(uint64_t op_id) {
    waiting_.insert(op_id);
    enqueue([this, op_id] {
        drain();
        waiting_.erase(op_id);
        auto it = written_.find(op_id);
        if (it == written_.end()) return;  // not applied yet: its event comes with the others
        const Pos target = it->second;
        written_.erase(it);
        if (read_.n < target.n) read_events(target.n, 0, true);
    });
}

void RedisStore::catch_up() {
    drain();
    while (link_.up() && started_) {
        const uint64_t before = fetched_.n;
        read_events(0, 0, false);
        if (fetched_.n == before) break;
    }
}

bool RedisStore::position_continues(std::string *why) {
    link_.select(kEventDb);
    Reply r = call({"EVALSHA", link_.sha(kPosition), "0", "15", fetched_.id});
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 4) {
        *why = "the stream position cannot be read";
        return false;
    }
    uint64_t count = 0, first = 0;
    parse_u64(str(r->element[1]), &count);
    const bool has_first = parse_u64(str(r->element[2]), &first);
    if (count == fetched_.n) return true;
    if (count > fetched_.n && has_first && first == fetched_.n + 1) return true;
    *why = count < fetched_.n
               ? "the server has fewer events than this process read (its data is gone)"
               : "the events after ordinal " + std::to_string(fetched_.n) +
                     " were trimmed or removed while this process was away";
    return false;
}

void RedisStore::report_position() {
    if (read_.n == reported_ || !ahead_.empty() || !link_.up() || changes_pending()) return;
    link_.select(kEventDb);
    link_.append({"HSET", "_readers", origin_, std::to_string(read_.n)});
    reported_ = read_.n;
}

void RedisStore::gap(const std::string &why) {
    cannot_resume(why);
}

}  // namespace platform::redis
