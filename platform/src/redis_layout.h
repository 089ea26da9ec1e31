// Where the Redis store keeps things. Logical database n is Redis database n:
//   TYPE:FIELD=V,...   one hash per record: packed (the bytes), form (0 whole,
//                      1 field by field), text (the record for people), n (the
//                      ordinal of the event of its last write)
//   _keys:TYPE         the type's records in key order (sorted set, score 0,
//                      members "HEXKEY RECORDKEY")
//   _age:TYPE          the same members scored by n: what a data-sync bracket dooms
//   _bracket:TYPE      an open data-sync bracket: the ordinal it opened at
//   _types             the types the database has held
// On a server shared by the members of a unit, the databases that describe one
// member (LOCAL_DB: its links and topology map; TOPO_DB: its output) carry the
// prefix "memberN/" on every one of these keys; ASIC_DB and UDP_DB describe
// the whole unit and are shared. Database 15 holds what every process shares:
//   _events            the one event stream, in write order: n (ordinal), origin,
//                      and db, type (with its member prefix), key, cmd, packed for
//                      a record; kind, member, type, data for a unit change
//   _events:n          the newest ordinal
//   _unit              the unit's current state (cards, card presence, agent
//                      records, port lookups), so that the stream's history
//                      can be trimmed
//   _applied           per origin, the number of its last change applied
//   _origins           hands out the origins, one per process
//   _member:N          the lease of the process serving member N
//   _readers           per origin, the ordinal up to which it has taken events in
//   _junk:KEY          what another process left at one of these keys, moved aside
#pragma once

#include <string>

#include "platform_state.h"
#include "store.h"

namespace platform::redis {

constexpr int kEventDb = 15;

inline std::string prefix(int member, int db) {
    bool own = db == XN_MOM_LOCAL_DB || db == XN_MOM_TOPO_DB;
    return member > 0 && own ? "member" + std::to_string(member) + "/" : "";
}

struct Names {
    std::string record;  // the record's hash
    std::string keys, age, bracket, types;
    std::string base;    // prefix and type: every record key of the type starts with it
    std::string member;  // the record's entry in the key set and the age index
};

// The names of a type's keys (record and member stay empty).
inline Names names(int member, int db, const std::string &type) {
    const std::string p = prefix(member, db);
    Names n;
    n.base = p + type;
    n.keys = p + "_keys:" + type;
    n.age = p + "_age:" + type;
    n.bracket = p + "_bracket:" + type;
    n.types = p + "_types";
    return n;
}

// The names of a record's keys.
inline Names names(int member, const Record &rec) {
    Names n = names(member, rec.db, rec.type);
    const std::string text = key_text(rec);
    n.record = n.base + (text.empty() ? "" : ":" + text);
    n.member = hex(rec.order) + " " + n.record;
    return n;
}

}  // namespace platform::redis
