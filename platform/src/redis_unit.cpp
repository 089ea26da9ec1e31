// The unit on Redis: cards, card presence, agent records and port lookups
// that one process announces reach every process on the server (entries of
// the event stream), and their current state is kept apart from that history
// (the hash _unit), so that a process that starts, or that lost part of the
// history, reads the state instead. Entries that do not parse (a number out of
// range, a field missing) are logged and skipped.
//
// Identity: every process gets its origin from the server (INCR _origins),
// whatever its PID, and the process serving member N holds the lease
// _member:N while it lives.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "store_redis.h"

namespace platform::redis {

namespace {

bool parse_int(const std::string &s, long long lo, long long hi, long long *out) {
    if (s.empty() || s.size() > 12) return false;
    char *end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 10);
    if (*end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// "D/S/X" with each part a 32-bit int.
bool parse_port(const std::string &s, Port *out) {
    long long v[3];
    size_t at = 0;
    for (int i = 0; i < 3; i++) {
        size_t end = i < 2 ? s.find('/', at) : s.size();
        if (end == std::string::npos ||
            !parse_int(s.substr(at, end - at), INT32_MIN, INT32_MAX, &v[i])) {
            return false;
        }
        at = end + 1;
    }
    *out = Port{static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2])};
    return true;
}

// "D/S/L V" or "D/S/L fail".
bool parse_lookup(const std::string &s, Port *port, std::optional<uint32_t> *value) {
    size_t space = s.find(' ');
    long long v = 0;
    if (space == std::string::npos || !parse_port(s.substr(0, space), port)) return false;
    std::string rest = s.substr(space + 1);
    if (rest == "fail") {
        *value = std::nullopt;
        return true;
    }
    if (!parse_int(rest, 0, UINT32_MAX, &v)) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

void RedisStore::share(const std::string &kind, int member, const std::string &type,
                       const std::string &data) {
    std::string field, how = "set", value;
    if (kind == "card_add" || kind == "card_del") {
        field = "card:" + data;
        how = kind == "card_add" ? "setnx" : "del";
    } else if (kind == "card_online" || kind == "card_offline") {
        field = "offline:" + data;
        how = kind == "card_offline" ? "set" : "del";
        value = "1";
    } else if (kind == "agent_set" || kind == "agent_del") {
        std::optional<Record> rec = make_record(0, type, data);
        if (!rec) return;
        field = "agent:" + std::to_string(member) + ":" + type + ":" + hex(rec->key);
        how = "stamp";
        value = kind == "agent_set" ? "set:" + data : "del:";
    } else if (kind == "chip" || kind == "phy") {
        const size_t space = data.find(' ');
        field = kind + ":" + data.substr(0, space);
        value = data.substr(space + 1);
    }
    submit(change(kUnit, kEventDb, {},
                  {kind, std::to_string(member), type, data, field, how, value,
                   std::to_string(opt_.stream_max)},
                  "unit " + field, "unit", "the unit change " + kind + " " + field));
}

bool RedisStore::take_unit(const std::map<std::string, std::string> &f) {
    auto field = [&](const char *name) {
        auto it = f.find(name);
        return it == f.end() ? std::string() : it->second;
    };
    const std::string kind = field("kind"), data = field("data");
    long long member = 0, gslot = 0;
    Port p;
    std::optional<uint32_t> value;
    bool ok = parse_int(field("member"), 0, INT32_MAX, &member);
    if (ok && member != 0 && member != st().module_member) return false;  // another member's
    if (!ok) {
    } else if (kind == "card_add" || kind == "card_del") {
        ok = parse_int(data, 0, UINT32_MAX, &gslot);
        if (ok) card_here(kind == "card_add", static_cast<uint32_t>(gslot));
    } else if (kind == "card_online" || kind == "card_offline") {
        ok = parse_port(data, &p);
        if (ok)
            card_online_here(std::get<0>(p), std::get<1>(p), std::get<2>(p), kind == "card_online");
    } else if (kind == "agent_set" || kind == "agent_del") {
        ok = agent_here(kind == "agent_set", field("type"), data) == 0;
    } else if (kind == "chip" || kind == "phy") {
        ok = parse_lookup(data, &p, &value);
        if (ok) (kind == "chip" ? st().chipids : st().phyids)[p] = value;
    } else {
        ok = false;
    }
    if (!ok) {
        log_throttled("unit", "xn_mom: unit entry " + read_.id + " (" + kind + " '" +
                                  data.substr(0, 40) + "') does not parse: skipped");
    }
    return ok;
}

bool RedisStore::load_unit() {
    link_.select(kEventDb);
    drain();
    Reply r = call({"EVALSHA", link_.sha(kUnitState), "0", "15"});
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements < 3) return false;
    const std::string kind = str(r->element[2]);
    if (kind != "hash" && kind != "none") {
        log_throttled("_unit", "xn_mom: _unit is a " + kind +
                                   ", not the unit's state: cards and agent records unknown");
    }
    // The state as the server has it: cards in announcement order, cards
    // offline, agent records (the newest of this member's and everyone's),
    // port lookups.
    std::vector<std::pair<long long, uint32_t>> cards;
    std::set<Port> offline;
    std::map<std::string, std::tuple<long long, bool, std::string, std::string>> agent;
    for (size_t i = 3; i + 1 < r->elements; i += 2) {
        const std::string f = str(r->element[i]), v = str(r->element[i + 1]);
        const size_t colon = f.find(':');
        const std::string what = f.substr(0, colon), rest = f.substr(colon + 1);
        long long n = 0, g = 0, member = 0;
        Port p;
        std::optional<uint32_t> value;
        bool ok = colon != std::string::npos;
        if (!ok) {
        } else if (what == "card") {
            ok = parse_int(rest, 0, UINT32_MAX, &g) && parse_int(v, 0, INT64_MAX / 2, &n);
            if (ok) cards.emplace_back(n, static_cast<uint32_t>(g));
        } else if (what == "offline") {
            ok = parse_port(rest, &p);
            if (ok) offline.insert(p);
        } else if (what == "chip" || what == "phy") {
            std::string line = rest;
            line += " ";
            line += v;
            ok = parse_lookup(line, &p, &value);
            if (ok) (what == "chip" ? st().chipids : st().phyids)[p] = value;
        } else if (what == "agent") {
            // agent:MEMBER:TYPE:HEXKEY = N:set:PACKED or N:del:
            const size_t c2 = rest.find(':'), c3 = rest.rfind(':'), v1 = v.find(':');
            ok = c2 != std::string::npos && c3 > c2 && v1 != std::string::npos &&
                 parse_int(rest.substr(0, c2), 0, INT32_MAX, &member) &&
                 parse_int(v.substr(0, v1), 0, INT64_MAX / 2, &n) &&
                 (v.compare(v1 + 1, 4, "set:") == 0 || v.compare(v1 + 1, 4, "del:") == 0);
            if (ok && (member == 0 || member == st().module_member)) {
                const std::string key = rest.substr(c2 + 1);
                auto &have = agent[key];
                if (std::get<0>(have) <= n) {
                    have = {n, v.compare(v1 + 1, 4, "set:") == 0, rest.substr(c2 + 1, c3 - c2 - 1),
                            v.substr(v1 + 5)};
                }
            }
        } else {
            ok = false;
        }
        if (!ok)
            log_throttled("unit state", "xn_mom: _unit field " + f + " does not parse: skipped");
    }
    // Bring this process's unit in line: what it has and the server has not
    // goes, what the server has and it has not comes (announced as usual).
    std::sort(cards.begin(), cards.end());
    std::vector<uint32_t> want;
    want.reserve(cards.size());
    for (const auto &[n, g] : cards) want.push_back(g);
    for (uint32_t g : std::vector<uint32_t>(st().cards)) {
        if (std::find(want.begin(), want.end(), g) == want.end()) card_here(false, g);
    }
    for (uint32_t g : want) {
        if (std::find(st().cards.begin(), st().cards.end(), g) == st().cards.end())
            card_here(true, g);
    }
    for (const Port &q : std::set<Port>(st().offline_cards)) {
        if (offline.count(q) == 0)
            card_online_here(std::get<0>(q), std::get<1>(q), std::get<2>(q), true);
    }
    for (const Port &q : offline)
        card_online_here(std::get<0>(q), std::get<1>(q), std::get<2>(q), false);
    std::set<Record> kept;
    for (const auto &[key, entry] : agent) {
        const auto &[n, set, type, packed] = entry;
        if (!set) continue;
        std::optional<Record> rec = make_record(0, type, packed);
        if (!rec) continue;
        auto now = st().agent_records.find(*rec);
        if (now == st().agent_records.end() || now->packed != packed)
            agent_here(true, type, packed);
        kept.insert(std::move(*rec));
    }
    for (const Record &rec : std::set<Record>(st().agent_records)) {
        if (kept.count(rec) == 0) agent_here(false, rec.type, rec.packed);
    }
    read_.id = str(r->element[0]);
    read_.n = std::strtoull(str(r->element[1]).c_str(), nullptr, 10);
    fetched_ = read_;
    ahead_.clear();
    resets_++;
    return true;
}

bool RedisStore::new_origin(std::string *error) {
    link_.select(kEventDb);
    drain();
    Reply r = call({"INCR", "_origins"});
    if (!r || r->type != REDIS_REPLY_INTEGER) {
        *error = "cannot get an origin from the server (INCR _origins: " +
                 (r ? str(r.get()) : link_.why_closed()) + ")";
        return false;
    }
    origin_ = std::to_string(r->integer);
    link_.append({"CLIENT", "SETNAME", "dpm-" + origin_});
    return true;
}

namespace {

int lease_ms(int timeout_ms) {
    return std::max(3 * timeout_ms, 3000);
}

}  // namespace

int RedisStore::claim_member(int member, std::string *error) {
    link_.select(kEventDb);
    drain();
    const std::string key = "_member:" + std::to_string(member);
    Reply r = call({"EVALSHA", link_.sha(kLease), "1", key, "15", origin_,
                    std::to_string(lease_ms(link_.timeout_ms())), ""});
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2) {
        *error = "cannot take the lease " + key + ": " + (r ? str(r.get()) : link_.why_closed());
        return -1;
    }
    // -2 from here on: another process holds it.
    const std::string holder = str(r->element[0]);
    if (holder != origin_) {
        *error = holder.empty()
                     ? key + " holds something else than a lease"
                     : "member " + std::to_string(member) +
                           " is served by another process (origin " + holder + "; its lease " +
                           key + " runs " + std::to_string(r->element[1]->integer) +
                           " ms more and is renewed while it lives: one that died "
                           "frees it within that time)";
        return -2;
    }
    lease_member_ = member;
    lease_renewed_ = Clock::now();
    return 0;
}

void RedisStore::free_member(int member) {
    link_.select(kEventDb);
    Reply r = call({"DEL", "_member:" + std::to_string(member)});
    if (!r || r->type == REDIS_REPLY_ERROR) {
        log_throttled("lease", "xn_mom: cannot free _member:" + std::to_string(member) + ": " +
                                   (r ? str(r.get()) : link_.why_closed()));
    }
}

void RedisStore::renew_lease(bool now) {
    const auto period = std::chrono::milliseconds(lease_ms(link_.timeout_ms()) / 3);
    if (lease_member_ == 0 || !link_.up() || (!now && Clock::now() - lease_renewed_ < period)) {
        return;
    }
    std::string error;
    const int member = lease_member_;
    const int rv = claim_member(member, &error);
    if (rv == -2) {
        lease_member_ = 0;
        cannot_resume("the lease of member " + std::to_string(member) + " is lost: " + error, true);
    } else if (rv != 0) {
        // Refused for now (out of memory, read-only): it still runs until it expires.
        log_throttled("lease", "xn_mom: " + error);
    }
}

}  // namespace platform::redis
