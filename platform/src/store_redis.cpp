// The Redis store (its files are listed in store_redis.h): the Store
// interface on the server, and what happens when the server goes away.
//
// A lost connection: every connected session gets its disconnect callback,
// and the loop connects again. Back on the same server (same run id) with the
// event stream continuing right after what this process read, the sessions
// resume (reconnect type 2): their subscriptions go on from where they were
// and deliver what was written meanwhile, deletions included. Otherwise (the
// server restarted, the events after our position were trimmed or removed,
// the snapshot could not be read in three tries) nothing can be resumed:
// reconnect type 1, and the module ends its process with status 77.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "store_redis.h"

namespace platform::redis {

namespace {

constexpr const char *kBracketChunk = "500";

bool watched(int member, int db, const std::string &base) {
    for (const Subscription &sub : st().subs) {
        if (sub.db == db && prefix(sub.member, db) + sub.type == base) return true;
    }
    (void)member;
    return false;
}

// The changes one call of the batch script carries: from `at` on, per change
// 'w' or 'd', its db and 8 or 3 more arguments (redis_writes.cpp).
size_t batch_size(const std::vector<std::string> &args, size_t at) {
    size_t n = 0;
    for (; at < args.size(); ++n) at += args[at] == "w" ? 10 : 5;
    return n;
}

}  // namespace

RedisStore::RedisStore(Address address, const RedisOptions &opt)
    : link_(std::move(address), opt.timeout_ms), opt_(opt) {}

RedisStore::~RedisStore() = default;

bool RedisStore::start(std::string *error) {
    return link_.open(error) && new_origin(error);
}

Reply RedisStore::call(const std::vector<std::string> &args) {
    drain();
    Reply r = link_.call(args);
    if (!link_.up()) on_lost();
    return r;
}

// ---- the Store interface -----------------------------------------------------------

int RedisStore::write(int member, const Record &rec) {
    const Names n = names(member, rec);
    const std::string d = std::to_string(rec.db);
    const bool fields = rec.form == Form::Fields;
    Op op = change(
        kBatch, rec.db, {n.record, n.keys, n.age, n.types},
        {n.member, rec.packed, fields ? "1" : "0", record_text(rec),
         std::to_string(set_cmd(rec.form)), n.base, std::to_string(opt_.stream_max), rec.type},
        d + " " + n.record, d + " " + n.base, "set " + n.record + " in db " + d);
    op.placeholder = watched(member, rec.db, n.base);
    return submit(std::move(op));
}

int RedisStore::del(int member, const Record &rec) {
    const Names n = names(member, rec);
    const std::string d = std::to_string(rec.db);
    Op op = change(kBatch, rec.db, {n.record, n.keys, n.age},
                   {n.member, n.base, std::to_string(opt_.stream_max)}, d + " " + n.record,
                   d + " " + n.base, "delete " + n.record + " in db " + d);
    op.deletion = true;
    op.placeholder = watched(member, rec.db, n.base);
    return submit(std::move(op));
}

void RedisStore::bracket_begin(int member, int db, const std::string &type) {
    const Names n = names(member, db, type);
    const std::string scope = std::to_string(db) + " " + n.base;
    submit(change(kBracketBegin, db, {n.bracket}, {}, scope, scope,
                  "open the data-sync bracket of " + n.base + " in db " + std::to_string(db)));
    brackets_.insert({member, db, type});
}

void RedisStore::bracket_end(int member, int db, const std::string &type) {
    const Names n = names(member, db, type);
    const std::string scope = std::to_string(db) + " " + n.base;
    Op op =
        change(kBracketEnd, db, {n.bracket, n.keys, n.age},
               {"", n.base, std::to_string(opt_.stream_max), n.base, kBracketChunk}, scope, scope,
               "close the data-sync bracket of " + n.base + " in db " + std::to_string(db));
    op.placeholder = watched(member, db, n.base);
    submit(std::move(op));
    brackets_.erase({member, db, type});
}

void RedisStore::drop_instance() {
    // A bracket the module opened dies with it; its records are no longer doomed.
    for (const auto &[member, db, type] : brackets_) {
        const Names n = names(member, db, type);
        const std::string scope = std::to_string(db) + " " + n.base;
        submit(change(kBracketDrop, db, {n.bracket}, {}, scope, scope,
                      "drop the data-sync bracket of " + n.base));
    }
    brackets_.clear();
    flush();
    waiting_.clear();
    written_.clear();
    skips_.clear();
}

void RedisStore::flush() {
    pump();
    drain();
}

bool RedisStore::poll(int wait_ms) {
    bool reconnected = false;
    if (!link_.up()) {
        if (!reconnect(wait_ms)) return false;
        reconnected = true;
    }
    flush();
    renew_lease(false);
    // Changes waiting for another try must not wait behind a long blocking read.
    if (changes_pending()) wait_ms = std::min(wait_ms, 50);
    bool any = read_events(0, wait_ms, false);
    if (!any) report_position();
    return any || reconnected;
}

void RedisStore::command_log(bool on) {
    link_.logging = on;
    link_.log.clear();
}

std::vector<std::vector<std::string>> RedisStore::take_command_log() {
    return std::exchange(link_.log, {});
}

void RedisStore::replay_commands(const std::vector<std::vector<std::string>> &log) {
    // Sent again as changes of an origin of their own, numbered anew, so that
    // the server does the work again instead of answering 'dup'.
    drain();
    link_.select(kEventDb);
    Reply r = call({"INCR", "_origins"});
    const std::string origin = r ? std::to_string(r->integer) : "0";
    uint64_t seq = 0;
    std::set<std::string> changes;
    for (Script c : {kBatch, kBracketBegin, kBracketEnd, kBracketDrop, kUnit}) {
        changes.insert(link_.sha(c));
    }
    for (std::vector<std::string> args : log) {
        if (args.size() > 3 && args[0] == "EVALSHA" && changes.count(args[1]) != 0) {
            const size_t at = 3 + std::strtoul(args[2].c_str(), nullptr, 10) + 1;
            if (at + 1 < args.size()) {
                args[at] = origin;
                args[at + 1] = std::to_string(seq + 1);
                seq += args[1] == link_.sha(kBatch) ? batch_size(args, at + 2) : 1;
            }
        }
        link_.append(args);
    }
    while (link_.up() && link_.owed() > 0) {
        uint64_t tag = 0;
        if (!link_.next(&tag)) break;
    }
}

// ---- losing and finding the server ------------------------------------------------

void RedisStore::on_lost() {
    if (lost_) return;
    lost_ = true;
    std::fprintf(stderr, "xn_mom: connection to %s lost: %s\n", link_.address().shown.c_str(),
                 link_.why_closed().c_str());
    written_.clear();  // placeholders find nothing; their events come with the others
    for (const auto &[db, session] : st().sessions) {
        if (!session.connected || session.down) continue;
        lost_sessions_.push_back(db);
        platform::db_disconnect(db);
    }
}

bool RedisStore::reconnect(int wait_ms) {
    const auto now = Clock::now();
    auto pause = [&](Clock::duration d) {
        if (wait_ms > 0) {
            std::this_thread::sleep_for(
                std::min<Clock::duration>(d, std::chrono::milliseconds(wait_ms)));
        }
    };
    if (now < next_attempt_) {
        pause(next_attempt_ - now);
        return false;
    }
    const std::string old_run = link_.run_id();
    std::string error;
    if (!link_.open(&error)) {
        log_throttled("connect", "xn_mom: cannot connect again: " + error);
        next_attempt_ = now + std::chrono::milliseconds(200);
        pause(std::chrono::milliseconds(200));
        return false;
    }
    lost_ = false;
    std::string why;
    const bool same = link_.run_id() == old_run;
    if (same) {
        link_.append({"CLIENT", "SETNAME", "dpm-" + origin_});
    } else {
        why = "another server (its run id changed: it restarted)";
        renumber();
    }
    bool resume = same && (!started_ || position_continues(&why));
    if (!give_up_.empty()) {
        resume = false;
        why = give_up_;
    }
    if (lease_member_ > 0 && link_.up()) renew_lease(true);
    std::fprintf(stderr, "xn_mom: connected to %s again (%s), reconnect type %d\n",
                 link_.address().shown.c_str(), resume ? "the same server" : why.c_str(),
                 resume ? XN_MOM_RECONN_RESUME : 1);
    if (!resume) {
        cannot_resume(why);
        return true;
    }
    for (int db : std::exchange(lost_sessions_, {}))
        platform::db_reconnect(db, XN_MOM_RECONN_RESUME);
    return true;
}

void RedisStore::cannot_resume(const std::string &why, bool stop) {
    std::fprintf(stderr, "xn_mom: %s: nothing can be resumed\n", why.c_str());
    bool sessions = false, unhandled = false;
    for (auto &[db, session] : st().sessions) {
        if (!session.connected) continue;
        sessions = true;
        unhandled |= session.reconn_cb == nullptr;
        if (!session.down) platform::db_disconnect(db);
        platform::db_reconnect(db, 1);  // the module ends its process (status 77)
    }
    lost_sessions_.clear();
    if (unhandled || (!sessions && (stop || !st().subs.empty()))) {
        std::fprintf(stderr, "xn_mom: this process ends (status 77)\n");
        std::exit(77);
    }
    // Read on from the unit's state as it is now.
    if (link_.up()) load_unit();
}

void RedisStore::log_throttled(const std::string &what, const std::string &text) {
    if (throttle_.size() > 1000) throttle_.clear();
    auto &[last, held] = throttle_[what];
    const auto now = Clock::now();
    if (last != Clock::time_point{} && now - last < std::chrono::seconds(10)) {
        held++;
        return;
    }
    if (held > 0) {
        std::fprintf(stderr, "%s (and %llu more like it since the last)\n", text.c_str(),
                     static_cast<unsigned long long>(held));
    } else {
        std::fprintf(stderr, "%s\n", text.c_str());
    }
    last = now;
    held = 0;
}

}  // namespace platform::redis

namespace platform {

std::unique_ptr<Store> make_redis_store(const RedisOptions &opt, std::string *error) {
    // A server that went away must show as a failed call, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    redis::Address address;
    if (!redis::parse_address(opt.address, opt.password_file, &address, error)) return nullptr;
    if (opt.timeout_ms < 1 || opt.stream_max < 100) {
        *error = "the timeout must be at least 1 ms and the stream bound at least 100 events";
        return nullptr;
    }
    auto s = std::make_unique<redis::RedisStore>(std::move(address), opt);
    if (!s->start(error)) return nullptr;
    // A process that ends from inside a callback (the module's exit 77) still
    // sends what it wrote, as far as the server takes it within the timeout.
    // The state is made first, so that it is destroyed after this handler runs.
    (void)st();
    static const bool at_exit = std::atexit([] {
                                    if (st().on_redis && st().store) st().store->finish(0);
                                }) == 0;
    (void)at_exit;
    return s;
}

}  // namespace platform
