// Steering of the object database for the host and the tests (platform_ctl.h):
// the other components' writes and reads, the choice of store, the members of
// a unit on a shared server, watches, and the module's writes for tests that
// count them. Sessions lost and back are in mom.cpp with the client.
#include <cstdio>
#include <utility>

#include "store.h"

using platform::st;

namespace platform {
namespace {

int host_write(int db, const std::string &type, const std::string &packed, Form form) {
    std::optional<Record> rec = make_record(db, type, packed, form);
    return rec ? platform::store().write(st().view_member, *rec) : -1;
}

}  // namespace

int db_set(int db, const std::string &type, const std::string &packed) {
    return host_write(db, type, packed, Form::Whole);
}

int db_hmset(int db, const std::string &type, const std::string &packed) {
    return host_write(db, type, packed, Form::Fields);
}

int db_del(int db, const std::string &type, const std::string &packed) {
    std::optional<Record> rec = make_record(db, type, packed);
    return rec ? platform::store().del(st().view_member, *rec) : -1;
}

std::vector<Record> db_records(int db, const std::string &type) {
    std::vector<Record> out;
    platform::store().records(st().view_member, db, type, &out);
    return out;
}

std::optional<Record> db_get(int db, const std::string &type, const std::string &packed) {
    std::optional<Record> rec = make_record(db, type, packed);
    return rec ? platform::store().get(st().view_member, *rec) : std::nullopt;
}

int db_use_redis(const RedisOptions &opt, std::string *error) {
    std::unique_ptr<platform::Store> s = platform::make_redis_store(opt, error);
    if (!s) return -1;
    st().store = std::move(s);
    st().on_redis = true;
    return 0;
}

int db_use_redis(const std::string &address, std::string *error) {
    RedisOptions opt;
    opt.address = address;
    return db_use_redis(opt, error);
}

int db_claim_member(int member, std::string *error) {
    return platform::store().claim_member(member, error);
}

void db_free_member(int member) {
    platform::store().free_member(member);
}

std::vector<std::string> db_finish(int wait_ms) {
    return platform::store().finish(wait_ms);
}

std::string db_status() {
    return platform::store().status();
}

bool db_on_redis() {
    return st().on_redis;
}

void db_member(int member) {
    st().module_member = st().view_member = member;
}

void db_view(int member) {
    st().view_member = member;
}

int db_view_member() {
    return st().view_member;
}

void set_record_text(
    std::function<std::string(const std::string &type, const std::string &packed)> fn) {
    st().text_form = std::move(fn);
}

namespace {

int watch_event(void *client, xn_mom_msg_t *msg) {
    if (msg == nullptr || msg->err != 0 || msg->data == nullptr) return 0;
    const auto *rec = msg->cmd == XN_MOM_CMD_HMSET
                          ? static_cast<const xn_mom_entry_t *>(msg->data)->msg
                          : static_cast<const ProtobufCMessage *>(msg->data);
    (*static_cast<WatchFn *>(client))(msg->cmd, platform::pack(rec));
    return 0;
}

}  // namespace

void db_watch(int member, int db, const std::string &type, WatchFn fn) {
    const ProtobufCMessageDescriptor *desc = platform::find_descriptor(type);
    if (desc == nullptr) return;
    platform::State &s = st();
    s.watches.push_back(std::move(fn));
    platform::Subscription sub{s.next_id++,       db,     type, desc, watch_event,
                               &s.watches.back(), nullptr};
    sub.member = member;
    if (!platform::store().subscribe(member, sub)) {
        std::fprintf(stderr, "xn_mom: cannot watch %s in db %d\n", type.c_str(), db);
        return;
    }
    s.subs.push_back(std::move(sub));
}

void db_command_log(bool on) {
    platform::store().command_log(on);
}

std::vector<std::vector<std::string>> db_take_command_log() {
    return platform::store().take_command_log();
}

void db_replay_commands(const std::vector<std::vector<std::string>> &log) {
    platform::store().replay_commands(log);
}

bool db_wait(int ms) {
    platform::store().flush();
    return platform::store().poll(ms);
}

const std::vector<ModuleWrite> &module_writes() {
    return st().module_writes;
}

void clear_module_writes() {
    st().module_writes.clear();
}

void keep_module_writes(bool on) {
    st().keep_module_writes = on;
    if (!on) st().module_writes.clear();
}

}  // namespace platform
