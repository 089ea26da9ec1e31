// Changes to the Redis store: every write, deletion, bracket step and unit
// change is one script call carrying this process's origin and a number. The
// server applies a process's changes once each and in their order (a call
// sent again after a lost reply answers 'dup'; one that would overtake a
// change that did not apply answers ORDER), so nothing is applied twice and
// nothing is believed applied that was not.
//
// What the server refuses is kept: a refusal of the whole server (out of
// memory, read-only, scripts flushed) pauses sending, and the changes go
// again, in order, until it accepts them; junk at a change's own keys parks
// that change (and later ones of the same record or type) and tries again
// every second while the others go on. Refusals are logged once per cause
// with a count (show store). A change is refused to the caller (and counted
// as dropped) only when too many already wait.
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "store_redis.h"

namespace platform::redis {

namespace {

constexpr size_t kMaxWaiting = 200000;  // changes kept while the server does not take them
// Writes and deletions sent together in one call: a burst (an application of
// a thousand records) costs the server a few dozen script runs, not a thousand.
constexpr size_t kBatchMax = 64;
constexpr int kParkedRetryMs = 1000;
constexpr int kMaxBackoffMs = 1000;

}  // namespace

Op RedisStore::change(Script s, int db, std::vector<std::string> keys,
                      std::vector<std::string> args, std::string scope, std::string type_scope,
                      std::string what) {
    Op op;
    op.script = s;
    op.db = db;
    op.keys = std::move(keys);
    op.args = std::move(args);
    op.scope = std::move(scope);
    op.type_scope = std::move(type_scope);
    op.what = std::move(what);
    return op;
}

int RedisStore::submit(Op op) {
    if (unsent_.size() + parked_.size() >= kMaxWaiting) {
        if (dropped_++ == 0) {
            std::fprintf(stderr,
                         "xn_mom: %zu changes wait for %s: further changes are dropped and "
                         "counted (show store)\n",
                         kMaxWaiting, link_.address().shown.c_str());
        }
        return -1;
    }
    op.id = next_op_++;
    if (op.placeholder) placeholder(op.id);
    // Sent with the next read of the server (drain), together with the
    // changes that follow it until then; nothing goes out sooner anyway, the
    // pipeline being written only when a reply is read.
    unsent_.push_back(std::move(op));
    return 0;
}

bool RedisStore::held_back(const Op &op) const {
    if (parked_scopes_.empty()) return false;
    auto parked = [&](const std::string &scope) {
        auto it = parked_scopes_.find(scope);
        return it != parked_scopes_.end() && it->second > 0;
    };
    // A record waits behind its own parked change and behind a parked bracket
    // of its type; a bracket waits behind every parked change of its type.
    if (parked(op.scope) || parked(op.type_scope)) return true;
    return op.scope == op.type_scope && parked("type " + op.type_scope);
}

void RedisStore::park(Op op, const std::string &cause) {
    refusals_[cause]++;
    log_throttled("park " + op.scope,
                  "xn_mom: " + op.what + " refused (" + cause +
                      "): kept, and tried again every second until the server takes it");
    op.seq = 0;  // its number was used up: it goes again as a new change
    parked_scopes_[op.scope]++;
    if (op.scope != op.type_scope) parked_scopes_["type " + op.type_scope]++;
    if (parked_.empty()) parked_retry_ = Clock::now() + std::chrono::milliseconds(kParkedRetryMs);
    parked_.push_back(std::move(op));
}

void RedisStore::refused(const std::string &cause) {
    refusals_[cause]++;
    if (refusing_ != cause) {
        std::fprintf(stderr,
                     "xn_mom: %s refuses changes (%s): they are kept and sent again in order "
                     "until it takes them (show store counts the refusals)\n",
                     link_.address().shown.c_str(), cause.c_str());
        refusing_ = cause;
    }
    paused_until_ = Clock::now() + std::chrono::milliseconds(backoff_ms_);
    backoff_ms_ = std::min(backoff_ms_ * 2, kMaxBackoffMs);
}

void RedisStore::renumber() {
    std::string error;
    if (!new_origin(&error)) return;
    lost_sequence_ = false;
    next_seq_ = 1;
    for (Op &op : unsent_) op.seq = 0;
}

void RedisStore::pump() {
    if (!link_.up() || pumping_) return;
    // What the caller selected stays selected for the command it sends next.
    const int selected = link_.selected();
    pumping_ = true;
    send();
    pumping_ = false;
    if (selected >= 0) link_.select(selected);
}

void RedisStore::send() {
    const auto now = Clock::now();
    if (!parked_.empty() && now >= parked_retry_) {
        // Parked changes go first, in their order; nothing else of theirs was sent.
        while (!parked_.empty()) {
            unsent_.push_front(std::move(parked_.back()));
            parked_.pop_back();
        }
        parked_scopes_.clear();
    }
    if (now < paused_until_ || unsent_.empty()) return;
    if (lost_sequence_) renumber();
    std::vector<Op> batch;
    while (!unsent_.empty() && link_.up()) {
        Op op = std::move(unsent_.front());
        unsent_.pop_front();
        if (held_back(op)) {
            if (op.seq != 0) {
                // Numbered ones behind it get their numbers again, without a hole.
                next_seq_ = op.seq;
                for (Op &later : unsent_) later.seq = 0;
                op.seq = 0;
            }
            parked_scopes_[op.scope]++;
            if (op.scope != op.type_scope) parked_scopes_["type " + op.type_scope]++;
            parked_.push_back(std::move(op));
            continue;
        }
        if (op.seq == 0) op.seq = next_seq_++;
        if (op.script == kBatch) {
            if (!batch.empty() && batch.back().seq + 1 != op.seq) send_batch(&batch);
            batch.push_back(std::move(op));
            if (batch.size() == kBatchMax) send_batch(&batch);
            continue;
        }
        send_batch(&batch);  // what came before it goes first
        std::vector<std::string> cmd{"EVALSHA", link_.sha(op.script),
                                     std::to_string(op.keys.size())};
        cmd.insert(cmd.end(), op.keys.begin(), op.keys.end());
        cmd.push_back(std::to_string(op.db));
        cmd.push_back(origin_);
        cmd.push_back(std::to_string(op.seq));
        cmd.insert(cmd.end(), op.args.begin(), op.args.end());
        link_.select(op.db);
        op.call = op.id;
        link_.append(cmd, op.id);
        inflight_.push_back(std::move(op));
    }
    send_batch(&batch);
}

void RedisStore::send_batch(std::vector<Op> *batch) {
    if (batch->empty()) return;
    // Numbered one after the other: the script applies them in that order.
    std::vector<std::string> keys, args{"", origin_, std::to_string(batch->front().seq)};
    for (const Op &op : *batch) {
        keys.insert(keys.end(), op.keys.begin(), op.keys.end());
        args.push_back(op.deletion ? "d" : "w");
        args.push_back(std::to_string(op.db));
        args.insert(args.end(), op.args.begin(), op.args.end());
    }
    std::vector<std::string> cmd{"EVALSHA", link_.sha(kBatch), std::to_string(keys.size())};
    cmd.insert(cmd.end(), keys.begin(), keys.end());
    cmd.insert(cmd.end(), args.begin(), args.end());
    const uint64_t tag = batch->front().id;
    link_.append(cmd, tag);
    for (Op &op : *batch) {
        op.call = tag;
        inflight_.push_back(std::move(op));
    }
    batch->clear();
}

void RedisStore::send_full() {
    // A burst of callbacks (a card's module ids, a restart's snapshot) goes
    // out in whole calls while it runs, so the server works alongside; no
    // callback waits for a round trip. The replies are read at the next
    // drain, in order, as any pipelined reply.
    if (unsent_.size() < kBatchMax || !link_.up()) return;
    pump();
    link_.write_out();
    if (!link_.up()) drain();  // what was in flight goes again, in order
}

void RedisStore::drain() {
    pump();
    std::vector<Op> again;  // not applied: sent again, in order, with their numbers
    while (link_.up() && link_.owed() > 0) {
        uint64_t tag = 0;
        Reply r = link_.next(&tag);
        if (!r) break;
        if (tag == 0) {
            if (is_error(r.get())) log_throttled("reply", "xn_mom: redis: " + str(r.get()));
            continue;
        }
        while (!inflight_.empty() && inflight_.front().id != tag) {
            inflight_.pop_front();  // cannot happen: replies come in order
        }
        // Every op the call carried: a batch answers each in its place, or
        // fails as a whole (an error reply).
        for (size_t i = 0; !inflight_.empty() && inflight_.front().call == tag; ++i) {
            Op op = std::move(inflight_.front());
            inflight_.pop_front();
            const bool each = op.script == kBatch && r->type == REDIS_REPLY_ARRAY;
            if (each && i >= r->elements) {
                again.push_back(std::move(op));  // cannot happen: one reply per change
                continue;
            }
            take_reply(std::move(op), each ? r->element[i] : r.get(), &again);
        }
    }
    if (!link_.up()) {
        for (Op &op : inflight_) again.push_back(std::move(op));
        inflight_.clear();
    }
    for (auto it = again.rbegin(); it != again.rend(); ++it) unsent_.push_front(std::move(*it));
    if (reload_scripts_ && link_.up()) {
        reload_scripts_ = false;
        std::string error;
        if (link_.load_scripts(&error)) {
            log_throttled("noscript",
                          "xn_mom: the server lost our scripts (NOSCRIPT): scripts "
                          "loaded again, the changes sent again");
        } else {
            refused("NOSCRIPT");
        }
    }
    if (!link_.up()) on_lost();
}

void RedisStore::take_reply(Op op, const redisReply *r, std::vector<Op> *again) {
    if (is_error(r)) {
        const std::string e = str(r);
        const std::string cause = e.substr(0, e.find(' '));
        if (cause == "ORDER") {
            // An earlier change did not apply. A server that knows nothing of
            // this origin lost its bookkeeping: start a new sequence.
            if (std::atoll(e.c_str() + 6) == 0 && op.seq > 1) lost_sequence_ = true;
        } else if (cause == "NOSCRIPT") {
            // Scripts flushed: loaded again once the pipeline is empty.
            refusals_[cause]++;
            reload_scripts_ = true;
        } else {
            refused(cause);
        }
        again->push_back(std::move(op));
        return;
    }
    const size_t n = r->type == REDIS_REPLY_ARRAY ? r->elements : 0;
    const std::string first = n > 0 ? str(r->element[0]) : std::string();
    if (first == "refused") {
        park(std::move(op), n > 1 ? str(r->element[1]) : "refused");
        return;
    }
    acknowledged_++;
    if (op.scope != op.type_scope && parked_scopes_.count(op.scope) != 0) {
        // A later change of the same record went through (it was on its way
        // when the earlier one was parked): the earlier one is superseded.
        std::erase_if(parked_, [&](const Op &p) {
            if (p.scope != op.scope || p.id > op.id) return false;
            if (--parked_scopes_[p.scope] == 0) parked_scopes_.erase(p.scope);
            if (--parked_scopes_["type " + p.type_scope] == 0) {
                parked_scopes_.erase("type " + p.type_scope);
            }
            return true;
        });
    }
    if (!refusing_.empty()) {
        std::fprintf(stderr, "xn_mom: %s takes changes again (%s refused %llu in all)\n",
                     link_.address().shown.c_str(), refusing_.c_str(),
                     static_cast<unsigned long long>(refusals_[refusing_]));
        refusing_.clear();
    }
    backoff_ms_ = 50;
    Pos pos;
    if (first == "more" || first == "done") {
        // A bracket's close: its ordinal, the junk it dropped, then id and
        // ordinal of each deletion.
        if (n > 2 && r->element[2]->integer > 0) {
            log_throttled("junk " + op.type_scope,
                          "xn_mom: " + std::to_string(r->element[2]->integer) + " entries of " +
                              op.keys[2] + " name no record of ours: dropped from the index");
        }
        if (n >= 5) {
            pos.id = str(r->element[n - 2]);
            pos.n = static_cast<uint64_t>(r->element[n - 1]->integer);
        }
        if (first == "more") {
            Op next = op;
            next.seq = 0;
            next.args[0] = str(r->element[1]);
            next.placeholder = false;
            next.id = next_op_++;
            unsent_.push_front(std::move(next));
        }
    } else if (n >= 2 && r->element[1]->type == REDIS_REPLY_INTEGER) {
        pos.id = first;
        pos.n = static_cast<uint64_t>(r->element[1]->integer);
        if (n > 2 && !str(r->element[2]).empty()) {
            log_throttled("aside", "xn_mom: junk at " + str(r->element[2]) +
                                       " (not what the store keeps there) moved aside to _junk:*");
        }
    }
    if (op.placeholder && pos.n > 0 && waiting_.count(op.id) != 0) written_[op.id] = pos;
}

bool RedisStore::changes_pending() const {
    return !unsent_.empty() || !inflight_.empty() || !parked_.empty();
}

std::vector<std::string> RedisStore::finish(int wait_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        if (!link_.up()) reconnect(20);
        pump();
        drain();
        if (!changes_pending() || Clock::now() >= deadline) break;
        if (inflight_.empty()) {
            // Paused or parked: wait for the next try, not longer than the deadline.
            auto next = std::min(paused_until_, parked_.empty() ? deadline : parked_retry_);
            std::this_thread::sleep_until(std::min(next, deadline));
        }
    }
    std::vector<std::string> lost;
    for (const auto *q : {&inflight_, &unsent_, &parked_}) {
        for (const Op &op : *q) lost.push_back("not acknowledged: " + op.what);
    }
    if (dropped_ > 0) {
        lost.push_back(std::to_string(dropped_) +
                       " changes dropped while the server did not "
                       "take them");
    }
    if (lost.empty() && link_.up()) {
        renew_lease(false);
        if (lease_member_ > 0) {
            link_.select(kEventDb);
            call({"EVALSHA", link_.sha(kLease), "1", "_member:" + std::to_string(lease_member_),
                  "15", origin_, "0", "release"});
            lease_member_ = 0;
        }
        call({"HDEL", "_readers", origin_});
    }
    return lost;
}

std::string RedisStore::status() {
    std::string s = "store: redis " + link_.address().shown + ", origin " + origin_ +
                    (lease_member_ > 0 ? ", member " + std::to_string(lease_member_) : "") +
                    (link_.up() ? "" : ", connection lost (" + link_.why_closed() + ")") + "\n";
    s += "changes: " + std::to_string(acknowledged_) + " acknowledged, " +
         std::to_string(unsent_.size()) + " waiting, " + std::to_string(inflight_.size()) +
         " in flight, " + std::to_string(parked_.size()) + " parked, " + std::to_string(dropped_) +
         " dropped\n";
    s += "refused:";
    for (const auto &[cause, count] : refusals_) s += " " + cause + " " + std::to_string(count);
    s += refusals_.empty() ? " none\n" : "\n";
    s += "events: read up to " + std::to_string(read_.n) + " (the stream keeps about " +
         std::to_string(opt_.stream_max) + ")\n";
    return s;
}

}  // namespace platform::redis
