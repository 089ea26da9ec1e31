// The running unit's description on its Redis server (unit_state.h).
#include "unit_state.h"

#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace unit {

namespace {

constexpr int kUnitDb = 13;
constexpr const char *kHash = "dpm-unit";
constexpr const char *kAlive = "dpm-unit:alive";

redisReply *run(redisContext *ctx, const std::vector<std::string> &argv) {
    std::vector<const char *> a;
    std::vector<size_t> len;
    for (const auto &s : argv) {
        a.push_back(s.data());
        len.push_back(s.size());
    }
    return static_cast<redisReply *>(
        redisCommandArgv(ctx, static_cast<int>(a.size()), a.data(), len.data()));
}

}  // namespace

std::unique_ptr<UnitState> UnitState::connect(const std::string &address, std::string *error) {
    redisContext *ctx = nullptr;
    if (address.rfind("unix:", 0) == 0) {
        ctx = redisConnectUnix(address.substr(5).c_str());
    } else {
        auto colon = address.rfind(':');
        if (colon == std::string::npos) {
            *error = "the address is HOST:PORT or unix:PATH";
            return nullptr;
        }
        ctx = redisConnect(address.substr(0, colon).c_str(),
                           std::atoi(address.substr(colon + 1).c_str()));
    }
    if (ctx == nullptr || ctx->err != 0) {
        *error = ctx != nullptr ? ctx->errstr : "out of memory";
        if (ctx != nullptr) redisFree(ctx);
        return nullptr;
    }
    std::unique_ptr<UnitState> s(new UnitState(ctx));
    if (!s->command({"SELECT", std::to_string(kUnitDb)}, error)) return nullptr;
    return s;
}

UnitState::~UnitState() {
    redisFree(ctx_);
}

bool UnitState::command(const std::vector<std::string> &argv, std::string *reply) {
    redisReply *r = run(ctx_, argv);
    if (r == nullptr) {
        if (reply != nullptr) *reply = ctx_->errstr;
        return false;
    }
    bool ok = r->type != REDIS_REPLY_ERROR;
    if (reply != nullptr && r->str != nullptr) *reply = std::string(r->str, r->len);
    if (reply != nullptr && r->type == REDIS_REPLY_INTEGER) *reply = std::to_string(r->integer);
    freeReplyObject(r);
    return ok;
}

void UnitState::publish_unit(const std::string &file_text) {
    command({"DEL", kHash});
    command({"HSET", kHash, "file", file_text});
    heartbeat();
}

void UnitState::set_process(const std::string &who, const std::string &state) {
    command({"HSET", kHash, who, state});
}

void UnitState::heartbeat() {
    command({"SET", kAlive, std::to_string(getpid()), "EX", "3"});
}

void UnitState::forget() {
    command({"DEL", kAlive});
}

UnitState::View UnitState::read() {
    View v;
    redisReply *r = run(ctx_, {"HGETALL", kHash});
    if (r != nullptr && r->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            std::string k(r->element[i]->str, r->element[i]->len);
            std::string val(r->element[i + 1]->str, r->element[i + 1]->len);
            if (k == "file") {
                v.file = val;
                v.found = true;
            } else {
                v.processes[k] = val;
            }
        }
    }
    if (r != nullptr) freeReplyObject(r);
    r = run(ctx_, {"EXISTS", kAlive});
    v.supervisor_alive = r != nullptr && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
    if (r != nullptr) freeReplyObject(r);
    return v;
}

std::string process_state(const UnitState::View &v, int member) {
    if (!v.found) return "running";
    auto it = v.processes.find("member:" + std::to_string(member));
    if (it == v.processes.end() || it->second.rfind("stopped", 0) == 0 ||
        it->second.rfind("restarting", 0) == 0)
        return "stopped";
    if (!v.supervisor_alive) return "unreachable";
    // "running PID": the process must still be there (dpm-unit runs its
    // members on this machine).
    auto space = it->second.find(' ');
    if (space != std::string::npos) {
        pid_t pid = static_cast<pid_t>(std::atol(it->second.c_str() + space + 1));
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) return "unreachable";
    }
    return "running";
}

}  // namespace unit

namespace unit {

bool member_present(const UnitState::View &v, int member) {
    if (!v.found) return true;
    auto it = v.processes.find("member:" + std::to_string(member));
    return it != v.processes.end() && it->second.rfind("stopped", 0) != 0;
}

}  // namespace unit
