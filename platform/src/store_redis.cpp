// The Redis store: every database on a Redis server that several processes
// share (dpm-host --redis HOST:PORT or unix:PATH). Logical database n is Redis
// database n.
//
// Keys, readable with redis-cli -n N --scan:
//   TYPE:FIELD=V,...        one hash per record: packed (the bytes), form (0
//                           whole, 1 field by field), text (the record for people)
//   _keys:TYPE              sorted set of the type's record keys in key order
//   _expired:TYPE           records an open data-sync bracket still dooms
//   _types                  the types the database has held
// and in database 15, the event database, one stream per database and type:
//   _events:N:TYPE          cmd (1, 3 or 4) and packed, in write order
//   _unit                   cards and agent records announced by any process
// (all streams in one database, so that one blocking XREAD waits on all).
// On a server shared by the members of a unit, the databases that describe one
// member (LOCAL_DB: its links and topology map; TOPO_DB: its output) carry the
// prefix "memberN/"; ASIC_DB and UDP_DB describe the whole unit and are shared.
//
// Every change is one Lua script that changes the record and appends its event
// atomically, so the stream holds every write in write order. A subscription
// takes its snapshot and the stream position in one script: its replay and its
// later events neither miss nor repeat a write. Events are read from the
// streams, never from keyspace notifications (those are lost while a client is
// away). Streams are trimmed to about kStreamMaxLen entries.
//
// Writes are pipelined: a write only appends its script call; replies are read
// when something needs them. The events of this process's own writes are
// queued as placeholders at write time, so they keep their place among the
// other callbacks, as on the embedded store; a placeholder reads the stream up
// to its write when it comes to run. Events of other processes are read when
// the callback queue is empty (poll).
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "store.h"

namespace platform {
namespace {

constexpr const char *kStreamMaxLen = "100000";

struct StreamId {
    uint64_t ms = 0, seq = 0;
    bool operator<(const StreamId &o) const { return std::tie(ms, seq) < std::tie(o.ms, o.seq); }
    bool operator<=(const StreamId &o) const { return !(o < *this); }
    bool operator>=(const StreamId &o) const { return !(*this < o); }
};

bool parse_id(const std::string &s, StreamId *out) {
    unsigned long long ms = 0, seq = 0;
    if (std::sscanf(s.c_str(), "%llu-%llu", &ms, &seq) != 2) return false;
    *out = StreamId{ms, seq};
    return true;
}

std::string id_text(StreamId id) {
    return std::to_string(id.ms) + "-" + std::to_string(id.seq);
}

std::string hex(const std::string &s) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

// Every script runs in the record's database; ARGV[1] is its number, and
// event() appends to the stream in the event database and comes back.
const char *const kEventLua = R"(
local function event(stream, len, cmd, packed)
  redis.call('SELECT', 15)
  local id = redis.call('XADD', stream, 'MAXLEN', '~', len, '*', 'cmd', cmd, 'packed', packed)
  redis.call('SELECT', ARGV[1])
  return id
end
)";

// KEYS: record, key set, stream, expired set, type set.
// ARGV: db, key-set member, packed, form, text, event command, type, stream length.
const char *const kWriteLua = R"(
redis.call('HSET', KEYS[1], 'packed', ARGV[3], 'form', ARGV[4], 'text', ARGV[5])
if redis.call('ZADD', KEYS[2], 0, ARGV[2]) == 1 then redis.call('SADD', KEYS[5], ARGV[7]) end
redis.call('SREM', KEYS[4], KEYS[1])
return event(KEYS[3], ARGV[8], ARGV[6], ARGV[3])
)";

// KEYS: record, key set, stream, expired set. ARGV: db, key-set member, stream
// length. Nothing stored: no event (nil).
const char *const kDelLua = R"(
local packed = redis.pcall('HGET', KEYS[1], 'packed')
if type(packed) ~= 'string' then return false end
redis.call('DEL', KEYS[1])
redis.call('ZREM', KEYS[2], ARGV[2])
redis.call('SREM', KEYS[4], KEYS[1])
return event(KEYS[3], ARGV[3], '3', packed)
)";

// KEYS: key set, stream. ARGV: db. Returns the stream's last id, then key,
// packed, form of every record in key order (packed nil: the key is not one of
// our records).
const char *const kSnapshotLua = R"(
redis.call('SELECT', 15)
local last = '0-0'
local top = redis.call('XREVRANGE', KEYS[2], '+', '-', 'COUNT', 1)
if #top > 0 then last = top[1][1] end
redis.call('SELECT', ARGV[1])
local out = {last}
for _, m in ipairs(redis.call('ZRANGE', KEYS[1], 0, -1)) do
  local key = string.match(m, '^%x* (.+)$')
  local v = key and redis.pcall('HMGET', key, 'packed', 'form')
  out[#out + 1] = key or m
  if type(v) == 'table' and v[1] then
    out[#out + 1] = v[1]
    out[#out + 1] = v[2] or '0'
  else
    out[#out + 1] = false
    out[#out + 1] = false
  end
end
return out
)";

// KEYS: key set, expired set. ARGV: db. Marks every record of the type expired.
const char *const kBracketBeginLua = R"(
redis.call('DEL', KEYS[2])
for _, m in ipairs(redis.call('ZRANGE', KEYS[1], 0, -1)) do
  local key = string.match(m, '^%x* (.+)$')
  if key then redis.call('SADD', KEYS[2], key) end
end
return 0
)";

// KEYS: key set, stream, expired set. ARGV: db, stream length. Deletes the
// records still expired, in key order, each with its event; returns the ids.
const char *const kBracketEndLua = R"(
local ids = {}
for _, m in ipairs(redis.call('ZRANGE', KEYS[1], 0, -1)) do
  local key = string.match(m, '^%x* (.+)$')
  if key and redis.call('SISMEMBER', KEYS[3], key) == 1 then
    local packed = redis.pcall('HGET', key, 'packed')
    redis.call('DEL', key)
    redis.call('ZREM', KEYS[1], m)
    if type(packed) == 'string' then ids[#ids + 1] = event(KEYS[2], ARGV[2], '3', packed) end
  end
end
redis.call('DEL', KEYS[3])
return ids
)";

enum Script { kWrite, kDel, kSnapshot, kBracketBegin, kBracketEnd, kScripts };
const char *const kScriptText[kScripts] = {kWriteLua, kDelLua, kSnapshotLua, kBracketBeginLua,
                                           kBracketEndLua};
constexpr int kEventDb = 15;
// Cards and agent records of the unit, for every process on the server.
constexpr const char *kUnitStream = "_unit";

struct Event {
    StreamId id;
    int cmd;
    std::string packed;
};

using Reply = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;

std::string str(const redisReply *r) {
    return r != nullptr && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS ||
                            r->type == REDIS_REPLY_ERROR)
               ? std::string(r->str, r->len)
               : std::string();
}

// One entry of an XRANGE or XREAD reply: its id and its fields (the last of a
// repeated name wins). False when the reply is not shaped like an entry.
bool stream_entry(const redisReply *e, StreamId *id, std::map<std::string, std::string> *fields) {
    if (e->type != REDIS_REPLY_ARRAY || e->elements != 2 || !parse_id(str(e->element[0]), id))
        return false;
    const redisReply *f = e->element[1];
    for (size_t j = 0; f->type == REDIS_REPLY_ARRAY && j + 1 < f->elements; j += 2)
        (*fields)[str(f->element[j])] = str(f->element[j + 1]);
    return true;
}

class RedisStore : public Store {
  public:
    explicit RedisStore(std::string address) : address_(std::move(address)) {}
    ~RedisStore() override {
        if (ctx_ != nullptr) redisFree(ctx_);
    }

    bool connect(std::string *error) {
        redisContext *c = nullptr;
        timeval tv{2, 0};
        if (address_.rfind("unix:", 0) == 0) {
            c = redisConnectUnixWithTimeout(address_.substr(5).c_str(), tv);
        } else {
            size_t colon = address_.rfind(':');
            if (colon == std::string::npos) {
                *error = "address " + address_ + " is neither HOST:PORT nor unix:PATH";
                return false;
            }
            c = redisConnectWithTimeout(address_.substr(0, colon).c_str(),
                                        std::atoi(address_.c_str() + colon + 1), tv);
        }
        if (c == nullptr || c->err != 0) {
            *error = c != nullptr ? c->errstr : "out of memory";
            if (c != nullptr) redisFree(c);
            return false;
        }
        redisSetTimeout(c, timeval{5, 0});
        ctx_ = c;
        selected_ = -1;
        for (int i = 0; i < kScripts; i++) {
            Reply r = call({"SCRIPT", "LOAD", std::string(kEventLua) + kScriptText[i]});
            if (!r || r->type != REDIS_REPLY_STRING) {
                *error = "cannot load a script: " + (r ? str(r.get()) : "connection lost");
                return false;
            }
            sha_[i] = str(r.get());
        }
        Reply info = call({"INFO", "server"});
        std::string text = str(info.get());
        size_t at = text.find("run_id:");
        run_id_ = at == std::string::npos ? "" : text.substr(at + 7, 40);
        return true;
    }

    // ---- Store --------------------------------------------------------------------

    void write(int member, int db, const std::string &type, const RecordKey &k,
               const std::string &packed, bool field_form) override {
        Names n = names(member, db, type, k);
        std::string text = record_text(type, packed);
        uint64_t seq = append_script(
            db, kWrite, {n.record, n.keys, n.stream, n.expired, n.types},
            {n.member, packed, field_form ? "1" : "0", text,
             std::to_string(field_form ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET), type, kStreamMaxLen});
        placeholder(n.stream, seq);
    }

    void del(int member, int db, const std::string &type, const RecordKey &k) override {
        Names n = names(member, db, type, k);
        uint64_t seq = append_script(db, kDel, {n.record, n.keys, n.stream, n.expired},
                                     {n.member, kStreamMaxLen});
        placeholder(n.stream, seq);
    }

    std::vector<StoredEntry> records(int member, int db, const std::string &type) override {
        std::vector<StoredEntry> out;
        std::vector<std::string> types{type};
        if (type.empty()) {
            types.clear();
            select(db);
            Reply r = call({"SMEMBERS", prefix(member, db) + "_types"});
            if (r && r->type == REDIS_REPLY_ARRAY) {
                for (size_t i = 0; i < r->elements; i++) types.push_back(str(r->element[i]));
            }
            std::sort(types.begin(), types.end());
        }
        for (const std::string &t : types) {
            if (find_descriptor(t) == nullptr) {
                std::fprintf(stderr, "xn_mom: db %d holds records of an unknown type %s, skipped\n",
                             db, t.c_str());
                continue;
            }
            snapshot(member, db, t, [&](const std::string &packed, bool field_form) {
                RecordKey k;
                if (!key_of_packed(t, packed, &k)) return false;
                out.push_back(StoredEntry{StoreKey{t, k.order, k.key}, Stored{packed, field_form}});
                return true;
            });
        }
        return out;
    }

    std::optional<StoredEntry> get(int member, int db, const std::string &type,
                                   const RecordKey &k) override {
        Names n = names(member, db, type, k);
        select(db);
        Reply r = call({"HMGET", n.record, "packed", "form"});
        if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
            r->element[0]->type != REDIS_REPLY_STRING) {
            return std::nullopt;
        }
        return StoredEntry{StoreKey{type, k.order, k.key},
                           Stored{str(r->element[0]), str(r->element[1]) == "1"}};
    }

    void subscribe(int member, Subscription &sub) override {
        sub.stream = names(member, sub.db, sub.type, RecordKey{}).stream;
        StreamId last =
            snapshot(member, sub.db, sub.type, [&](const std::string &packed, bool field_form) {
                queue_event(sub.desc, sub.cb, sub.client,
                            field_form ? XN_MOM_CMD_HMSET : XN_MOM_CMD_SET, 0, true, packed,
                            sub.id);
                return true;
            });
        sub.from_ms = last.ms;
        sub.from_seq = last.seq;
        queue_event(sub.desc, sub.cb, sub.client, XN_MOM_CMD_DS, 0, false, {}, sub.id);
    }

    void bracket_begin(int member, int db, const std::string &type) override {
        Names n = names(member, db, type, RecordKey{});
        append_script(db, kBracketBegin, {n.keys, n.expired}, {});
        brackets_.insert({member, db, type});
    }

    void bracket_end(int member, int db, const std::string &type) override {
        Names n = names(member, db, type, RecordKey{});
        uint64_t seq =
            append_script(db, kBracketEnd, {n.keys, n.stream, n.expired}, {kStreamMaxLen});
        placeholder(n.stream, seq);
        brackets_.erase({member, db, type});
    }

    void drop_instance() override {
        // A bracket the module opened dies with it; its records are no longer doomed.
        for (const auto &[member, db, type] : brackets_) {
            select(db);
            append({"DEL", names(member, db, type, RecordKey{}).expired});
        }
        brackets_.clear();
        flush();
        buffers_.clear();
        fetched_.clear();
    }

    void flush() override { drain(); }

    void command_log(bool on) override {
        logging_ = on;
        log_.clear();
    }
    std::vector<std::vector<std::string>> take_command_log() override {
        return std::exchange(log_, {});
    }
    void replay_commands(const std::vector<std::vector<std::string>> &log) override {
        for (const auto &args : log) append(args);
        drain();
    }

    void share(const std::string &kind, int member, const std::string &type,
               const std::string &data) override {
        select(kEventDb);
        append({"XADD", kUnitStream, "MAXLEN", "~", kStreamMaxLen, "*", "origin", origin_, "kind",
                kind, "member", std::to_string(member), "type", type, "data", data});
    }

    bool poll(int wait_ms) override {
        drain();
        bool reconnected = false;
        if (ctx_ == nullptr) {
            if (!reconnect()) {
                // Nothing to read until the server is back; do not spin.
                if (wait_ms > 0) usleep(static_cast<useconds_t>(wait_ms) * 1000);
                return false;
            }
            reconnected = true;
        }
        std::map<std::string, StreamId> start{{kUnitStream, unit_from_}};
        for (const Subscription &sub : st().subs) {
            if (sub.stream.empty()) continue;
            StreamId from{sub.from_ms, sub.from_seq};
            auto [it, fresh] = start.emplace(sub.stream, from);
            if (!fresh) it->second = std::min(it->second, from);
        }
        std::vector<std::string> args{"XREAD", "COUNT", "10000"};
        if (wait_ms > 0) {
            args.insert(args.end(), {"BLOCK", std::to_string(wait_ms)});
        }
        args.emplace_back("STREAMS");
        select(kEventDb);
        for (auto &[stream, from] : start) {
            if (stream != kUnitStream) from = std::max(from, fetched(stream));
            args.push_back(stream);
        }
        for (const auto &[stream, from] : start) args.push_back(id_text(from));
        Reply r = call(args);
        bool any = false;
        if (r && r->type == REDIS_REPLY_ARRAY) {
            for (size_t i = 0; i < r->elements; i++) {
                const redisReply *s = r->element[i];
                if (s->type != REDIS_REPLY_ARRAY || s->elements != 2) continue;
                std::string stream = str(s->element[0]);
                if (stream == kUnitStream) {
                    any |= take_unit(s->element[1]);
                } else {
                    take_entries(stream, s->element[1]);
                }
            }
        }
        for (const auto &[stream, from] : start) {
            any |= deliver(stream, StreamId{~0ull, ~0ull}, false);
        }
        return any || reconnected;
    }

  private:
    struct Names {
        std::string record, keys, stream, expired, types, member;
    };

    static std::string prefix(int member, int db) {
        bool own = db == XN_MOM_LOCAL_DB || db == XN_MOM_TOPO_DB;
        return member > 0 && own ? "member" + std::to_string(member) + "/" : "";
    }

    static Names names(int member, int db, const std::string &type, const RecordKey &k) {
        std::string p = prefix(member, db);
        Names n;
        n.record = p + type + (k.text.empty() ? "" : ":" + k.text);
        n.keys = p + "_keys:" + type;
        n.stream = "_events:" + std::to_string(db) + ":" + p + type;
        n.expired = p + "_expired:" + type;
        n.types = p + "_types";
        n.member = hex(k.order) + " " + n.record;
        return n;
    }

    // ---- connection -----------------------------------------------------------------

    void select(int db) {
        if (selected_ == db || ctx_ == nullptr) return;
        append({"SELECT", std::to_string(db)});
        selected_ = db;
    }

    static std::vector<const char *> argv_of(const std::vector<std::string> &args,
                                             std::vector<size_t> *lens) {
        std::vector<const char *> argv;
        for (const auto &a : args) {
            argv.push_back(a.data());
            lens->push_back(a.size());
        }
        return argv;
    }

    // Queue a command on the pipeline; `seq` names its reply (0: not needed).
    void append(const std::vector<std::string> &args, uint64_t seq = 0) {
        if (ctx_ == nullptr) {
            std::fprintf(stderr, "xn_mom: no connection to %s, %s dropped\n", address_.c_str(),
                         args[0].c_str());
            return;
        }
        if (logging_) log_.push_back(args);
        std::vector<size_t> lens;
        std::vector<const char *> argv = argv_of(args, &lens);
        redisAppendCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lens.data());
        pending_.push_back(seq);
    }

    uint64_t append_script(int db, Script s, const std::vector<std::string> &keys,
                           const std::vector<std::string> &argv) {
        select(db);
        std::vector<std::string> args{"EVALSHA", sha_[s], std::to_string(keys.size())};
        args.insert(args.end(), keys.begin(), keys.end());
        args.push_back(std::to_string(db));
        args.insert(args.end(), argv.begin(), argv.end());
        uint64_t seq = next_seq_++;
        append(args, seq);
        return seq;
    }

    // Read every reply still owed: the ids of events our writes appended.
    void drain() {
        while (ctx_ != nullptr && !pending_.empty()) {
            void *raw = nullptr;
            if (redisGetReply(ctx_, &raw) != REDIS_OK || raw == nullptr) {
                lost();
                return;
            }
            Reply r(static_cast<redisReply *>(raw), freeReplyObject);
            uint64_t seq = pending_.front();
            pending_.pop_front();
            if (r->type == REDIS_REPLY_ERROR) {
                std::fprintf(stderr, "xn_mom: redis: %s\n", str(r.get()).c_str());
                continue;
            }
            if (seq == 0) continue;
            // A write's or a deletion's event id; a closed bracket's last one.
            const redisReply *last = r->type == REDIS_REPLY_ARRAY && r->elements > 0
                                         ? r->element[r->elements - 1]
                                         : r.get();
            StreamId id;
            if (parse_id(str(last), &id)) written_[seq] = id;
        }
    }

    // One command now, after whatever is still in the pipeline.
    Reply call(const std::vector<std::string> &args) {
        drain();
        if (ctx_ == nullptr) return Reply(nullptr, freeReplyObject);
        if (logging_) log_.push_back(args);
        std::vector<size_t> lens;
        std::vector<const char *> argv = argv_of(args, &lens);
        void *raw = redisCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lens.data());
        if (raw == nullptr) {
            lost();
            return Reply(nullptr, freeReplyObject);
        }
        Reply r(static_cast<redisReply *>(raw), freeReplyObject);
        if (r->type == REDIS_REPLY_ERROR) {
            std::fprintf(stderr, "xn_mom: redis %s: %s\n", args[0].c_str(), str(r.get()).c_str());
        }
        return r;
    }

    // The server went away: every connected session hears of it (disconnect
    // callbacks); poll() then tries to connect again.
    void lost() {
        std::fprintf(stderr, "xn_mom: connection to %s lost: %s\n", address_.c_str(),
                     ctx_ != nullptr ? ctx_->errstr : "");
        if (ctx_ != nullptr) redisFree(ctx_);
        ctx_ = nullptr;
        pending_.clear();
        written_.clear();
        for (const auto &[db, session] : st().sessions) {
            if (!session.connected || session.down) continue;
            lost_sessions_.push_back(db);
            platform::db_disconnect(db);
        }
    }

    // Back on the same server (same run id): the sessions resume (reconnect
    // type 2) and subscribe again, and their replays bring what was written
    // meanwhile. Another server (it restarted, and without persistence its
    // streams and records are gone): nothing can be resumed (type 1; the
    // module ends with status 77).
    bool reconnect() {
        std::string old_run = run_id_, error;
        if (!connect(&error)) {
            if (ctx_ != nullptr) redisFree(ctx_);
            ctx_ = nullptr;
            return false;
        }
        int type = run_id_ == old_run ? XN_MOM_RECONN_RESUME : 1;
        std::fprintf(stderr, "xn_mom: connected to %s again (%s server), reconnect type %d\n",
                     address_.c_str(), type == XN_MOM_RECONN_RESUME ? "the same" : "another", type);
        buffers_.clear();
        fetched_.clear();
        if (type != XN_MOM_RECONN_RESUME) unit_from_ = StreamId{};
        for (int db : std::exchange(lost_sessions_, {})) platform::db_reconnect(db, type);
        return true;
    }

    // ---- events ---------------------------------------------------------------------

    template <typename Fn>
    StreamId snapshot(int member, int db, const std::string &type, Fn &&take) {
        Names n = names(member, db, type, RecordKey{});
        select(db);
        Reply r = call({"EVALSHA", sha_[kSnapshot], "2", n.keys, n.stream, std::to_string(db)});
        StreamId last;
        if (!r || r->type != REDIS_REPLY_ARRAY || r->elements < 1 ||
            !parse_id(str(r->element[0]), &last)) {
            return last;
        }
        for (size_t i = 1; i + 2 < r->elements; i += 3) {
            const redisReply *packed = r->element[i + 1];
            std::string key = str(r->element[i]);
            if (packed->type != REDIS_REPLY_STRING ||
                !take(str(packed), str(r->element[i + 2]) == "1")) {
                std::fprintf(stderr, "xn_mom: %s in db %d is not a %s record, dropped\n",
                             key.c_str(), db, type.c_str());
            }
        }
        return last;
    }

    StreamId fetched(const std::string &stream) const {
        auto it = fetched_.find(stream);
        return it == fetched_.end() ? StreamId{} : it->second;
    }

    // Entries of an XRANGE or XREAD reply into the stream's buffer.
    void take_entries(const std::string &stream, const redisReply *entries) {
        auto &buf = buffers_[stream];
        StreamId &top = fetched_[stream];
        for (size_t i = 0; i < entries->elements; i++) {
            StreamId id;
            std::map<std::string, std::string> f;
            if (!stream_entry(entries->element[i], &id, &f) || id <= top) continue;
            top = id;
            const auto c = f.find("cmd"), packed = f.find("packed");
            const int cmd = c == f.end() ? -1 : std::atoi(c->second.c_str());
            if (packed == f.end() ||
                (cmd != XN_MOM_CMD_SET && cmd != XN_MOM_CMD_DEL && cmd != XN_MOM_CMD_HMSET)) {
                std::fprintf(stderr, "xn_mom: entry %s of %s is not an event of ours, dropped\n",
                             id_text(id).c_str(), stream.c_str());
                continue;
            }
            buf.push_back(Event{id, cmd, std::move(packed->second)});
        }
    }

    // Cards and agent records other processes of the unit announced: this
    // process's library and agent hear of them as if told here.
    bool take_unit(const redisReply *entries) {
        bool any = false;
        for (size_t i = 0; i < entries->elements; i++) {
            StreamId id;
            std::map<std::string, std::string> f;
            if (!stream_entry(entries->element[i], &id, &f)) continue;
            unit_from_ = std::max(unit_from_, id);
            int member = std::atoi(f["member"].c_str());
            if (f["origin"] == origin_ || (member != 0 && member != st().module_member)) continue;
            const std::string &kind = f["kind"];
            const std::string &data = f["data"];
            int dev = 0, slot = 0, sslot = 0;
            bool ok = false;
            if (kind == "card_add" || kind == "card_del") {
                card_here(kind == "card_add", static_cast<uint32_t>(std::stoul("0" + data)));
                ok = true;
            } else if ((kind == "card_online" || kind == "card_offline") &&
                       std::sscanf(data.c_str(), "%d/%d/%d", &dev, &slot, &sslot) == 3) {
                card_online_here(dev, slot, sslot, kind == "card_online");
                ok = true;
            } else if (kind == "agent_set" || kind == "agent_del") {
                ok = agent_here(kind == "agent_set", f["type"], data) == 0;
            }
            if (!ok) {
                std::fprintf(stderr, "xn_mom: unit entry %s is not one of ours, dropped\n",
                             id_text(id).c_str());
                continue;
            }
            any = true;
        }
        return any;
    }

    // Queue the buffered events up to `upto` for every subscription still
    // behind them.
    bool deliver(const std::string &stream, StreamId upto, bool front) {
        auto bit = buffers_.find(stream);
        if (bit == buffers_.end()) return false;
        bool any = false;
        auto &buf = bit->second;
        while (!buf.empty() && buf.front().id <= upto) {
            Event ev = std::move(buf.front());
            buf.pop_front();
            for (Subscription &sub : st().subs) {
                if (sub.stream != stream || StreamId{sub.from_ms, sub.from_seq} >= ev.id) continue;
                sub.from_ms = ev.id.ms;
                sub.from_seq = ev.id.seq;
                queue_event(sub.desc, sub.cb, sub.client, ev.cmd, 0, true, ev.packed, sub.id,
                            front);
                any = true;
            }
        }
        return any;
    }

    // The events of one of our writes keep their place in the queue: this item
    // stands there and turns into them when it runs.
    void placeholder(const std::string &stream, uint64_t seq) {
        bool watched = std::any_of(st().subs.begin(), st().subs.end(),
                                   [&](const Subscription &s) { return s.stream == stream; });
        if (!watched) return;
        enqueue([this, stream, seq] {
            drain();
            auto it = written_.find(seq);
            if (it == written_.end()) return;  // failed, or nothing deleted
            StreamId target = it->second;
            written_.erase(it);
            if (fetched(stream) < target) {
                StreamId from = target;
                for (const Subscription &sub : st().subs) {
                    if (sub.stream == stream)
                        from = std::min(from, StreamId{sub.from_ms, sub.from_seq});
                }
                from = std::max(from, fetched(stream));
                select(kEventDb);
                Reply r = call({"XRANGE", stream, "(" + id_text(from), "+"});
                if (r && r->type == REDIS_REPLY_ARRAY) take_entries(stream, r.get());
            }
            deliver(stream, target, true);
        });
    }

    std::string address_;
    redisContext *ctx_ = nullptr;
    std::string run_id_;
    std::string sha_[kScripts];
    int selected_ = -1;
    std::deque<uint64_t> pending_;          // replies owed, by write sequence (0: none)
    std::map<uint64_t, StreamId> written_;  // event id of each write whose reply came
    uint64_t next_seq_ = 1;
    std::map<std::string, std::deque<Event>> buffers_;  // read, not yet delivered
    std::map<std::string, StreamId> fetched_;           // last id read into the buffer
    std::set<std::tuple<int, int, std::string>> brackets_;
    StreamId unit_from_;              // cards and agent records of the unit read so far
    std::vector<int> lost_sessions_;  // disconnected by a lost server, to reconnect
    bool logging_ = false;            // keep every command sent (benchmarks)
    std::vector<std::vector<std::string>> log_;
    std::string origin_ = std::to_string(getpid()) + "." + std::to_string(++instances_);
    static inline int instances_ = 0;
};

}  // namespace

std::unique_ptr<Store> make_redis_store(const std::string &address, std::string *error) {
    // A server that went away must show as a failed call, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    auto s = std::make_unique<RedisStore>(address);
    if (!s->connect(error)) return nullptr;
    return s;
}

}  // namespace platform
