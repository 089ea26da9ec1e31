// The connection to the Redis server (see redis_link.h): address forms and
// credentials, the checks made at every connect, and the pipeline.
#include "redis_link.h"

#include <cstdlib>
#include <fstream>

#include "redis_lua.h"  // generated from redis_lua/*.lua at build time

namespace platform::redis {

Reply no_reply() {
    return Reply(nullptr, freeReplyObject);
}

std::string str(const redisReply *r) {
    return r != nullptr && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS ||
                            r->type == REDIS_REPLY_ERROR)
               ? std::string(r->str, r->len)
               : std::string();
}

bool is_error(const redisReply *r) {
    return r != nullptr && r->type == REDIS_REPLY_ERROR;
}

namespace {

std::string percent_decoded(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            out.push_back(static_cast<char>(std::strtol(s.substr(i + 1, 2).c_str(), nullptr, 16)));
            i += 2;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

bool parse_port(const std::string &text, const std::string &address, int *port,
                std::string *error) {
    char *end = nullptr;
    long p = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || p < 1 || p > 65535) {
        *error = "bad port '" + text + "' in " + address + " (a number 1..65535)";
        return false;
    }
    *port = static_cast<int>(p);
    return true;
}

// HOST:PORT, [V6]:PORT or HOST alone (the default port).
bool parse_host_port(const std::string &hp, const std::string &address, bool port_needed,
                     Address *out, std::string *error) {
    size_t colon = hp.rfind(':');
    if (!hp.empty() && hp[0] == '[') {
        size_t close = hp.find(']');
        if (close == std::string::npos) {
            *error = "bad host in " + address;
            return false;
        }
        out->host = hp.substr(1, close - 1);
        colon = hp.size() > close + 1 && hp[close + 1] == ':' ? close + 1 : std::string::npos;
    } else {
        out->host = hp.substr(0, colon);
    }
    if (out->host.empty()) {
        *error = "no host in " + address;
        return false;
    }
    if (colon == std::string::npos) {
        if (!port_needed) return true;
        *error = "address " + address +
                 " is neither HOST:PORT, unix:PATH, redis://[USER[:PASSWORD]@]HOST:PORT/ nor "
                 "unix:///PATH";
        return false;
    }
    return parse_port(hp.substr(colon + 1), address, &out->port, error);
}

}  // namespace

bool parse_address(const std::string &text, const std::string &password_file, Address *out,
                   std::string *error) {
    *out = Address{};
    if (text.rfind("rediss://", 0) == 0) {
        *error =
            "rediss:// (TLS) is not supported: Debian 12's hiredis (0.14) is built without "
            "TLS; use a unix socket, or a TLS tunnel to a local port";
        return false;
    }
    if (text.rfind("unix://", 0) == 0 || text.rfind("unix:", 0) == 0) {
        out->unix_socket = true;
        out->path = text.substr(text.rfind("unix://", 0) == 0 ? 7 : 5);
        if (out->path.empty()) {
            *error = "no socket path in " + text;
            return false;
        }
        out->shown = "unix:" + out->path;
    } else if (text.rfind("redis://", 0) == 0) {
        std::string rest = text.substr(8);
        size_t slash = rest.find('/');
        if (slash != std::string::npos) {
            if (slash + 1 != rest.size()) {
                *error = "the path of " + text +
                         " must be empty: the client uses databases 0..15 itself";
                return false;
            }
            rest.resize(slash);
        }
        size_t at = rest.rfind('@');
        if (at != std::string::npos) {
            std::string cred = rest.substr(0, at);
            size_t colon = cred.find(':');
            out->user = percent_decoded(cred.substr(0, colon));
            if (colon != std::string::npos) out->password = percent_decoded(cred.substr(colon + 1));
            rest = rest.substr(at + 1);
        }
        if (!parse_host_port(rest, text, false, out, error)) return false;
        out->shown = "redis://" + (out->user.empty() ? "" : out->user + "@") + out->host + ":" +
                     std::to_string(out->port) + "/";
    } else {
        if (!parse_host_port(text, text, true, out, error)) return false;
        out->shown = out->host + ":" + std::to_string(out->port);
    }
    if (out->password.empty() && !password_file.empty()) {
        std::ifstream in(password_file);
        if (!in || !std::getline(in, out->password)) {
            *error = "cannot read a password from " + password_file;
            return false;
        }
        if (!out->password.empty() && out->password.back() == '\r') out->password.pop_back();
    }
    if (out->password.empty()) {
        if (const char *env = std::getenv("DPM_REDIS_PASSWORD")) out->password = env;
    }
    return true;
}

Link::~Link() {
    if (ctx_ != nullptr) redisFree(ctx_);
}

void Link::close(const std::string &why) {
    if (ctx_ != nullptr) redisFree(ctx_);
    ctx_ = nullptr;
    why_ = why;
    owed_.clear();
    selected_ = -1;
}

bool Link::check(const char *what, const Reply &r, std::string *error) {
    if (!r) {
        *error = std::string("no answer to ") + what + " within " + std::to_string(timeout_ms_) +
                 " ms (" + why_ + ")";
        return false;
    }
    if (!is_error(r.get())) return true;
    std::string e = str(r.get());
    if (e.rfind("NOAUTH", 0) == 0) {
        *error = "the server needs a password (" + e +
                 "): give it in the URL, with --redis-password-file or in DPM_REDIS_PASSWORD";
    } else if (e.rfind("WRONGPASS", 0) == 0 || e.find("invalid password") != std::string::npos) {
        *error = "the server refused the credentials" +
                 (address_.user.empty() ? std::string() : " of user '" + address_.user + "'") +
                 " (" + e + ")";
    } else {
        *error = std::string(what) + " refused: " + e;
    }
    close(e);
    return false;
}

bool Link::open(std::string *error) {
    close("");
    timeval tv{timeout_ms_ / 1000, (timeout_ms_ % 1000) * 1000};
    redisContext *c = address_.unix_socket
                          ? redisConnectUnixWithTimeout(address_.path.c_str(), tv)
                          : redisConnectWithTimeout(address_.host.c_str(), address_.port, tv);
    if (c == nullptr || c->err != 0) {
        *error = "cannot connect to " + address_.shown + ": " +
                 (c != nullptr ? c->errstr : "out of memory");
        if (c != nullptr) redisFree(c);
        return false;
    }
    redisSetTimeout(c, tv);
    ctx_ = c;
    if (!address_.password.empty() || !address_.user.empty()) {
        std::vector<std::string> auth{"AUTH"};
        if (!address_.user.empty()) auth.push_back(address_.user);
        auth.push_back(address_.password);
        if (!check("AUTH", call(auth), error)) return false;
    }
    Reply info = call({"INFO", "server"});
    if (!check("INFO", info, error)) {
        *error += " (the client needs INFO's run_id to tell a restarted server from the same one)";
        return false;
    }
    std::string text = str(info.get());
    size_t at = text.find("run_id:");
    run_id_ = at == std::string::npos ? "" : text.substr(at + 7, 40);
    if (run_id_.size() != 40) {
        *error = "INFO of " + address_.shown +
                 " has no run_id: the client needs it to tell a restarted server from the same one";
        close("no run id");
        return false;
    }
    Reply db = call({"SELECT", "15"});
    if (!check("SELECT 15", db, error)) {
        *error +=
            ": the client needs databases 0..15 (start the server with --databases 16 or more)";
        return false;
    }
    selected_ = 15;
    return load_scripts(error);
}

bool Link::load_scripts(std::string *error) {
    static const char *const text[kScripts] = {
        lua::batch,    lua::bracket_begin, lua::bracket_end, lua::bracket_drop, lua::unit,
        lua::snapshot, lua::position,      lua::unit_state,  lua::lease};
    for (int i = 0; i < kScripts; i++) {
        // The shebang line first, then what every script shares.
        std::string body = text[i];
        size_t eol = body.find('\n');
        std::string script = body.substr(0, eol + 1) + lua::common + body.substr(eol + 1);
        Reply r = call({"SCRIPT", "LOAD", script});
        if (!check("SCRIPT LOAD", r, error)) return false;
        sha_[i] = str(r.get());
    }
    return true;
}

namespace {

std::vector<const char *> argv_of(const std::vector<std::string> &args, std::vector<size_t> *lens) {
    std::vector<const char *> argv;
    for (const auto &a : args) {
        argv.push_back(a.data());
        lens->push_back(a.size());
    }
    return argv;
}

}  // namespace

void Link::append(const std::vector<std::string> &args, uint64_t tag) {
    if (ctx_ == nullptr) return;
    if (logging) log.push_back(args);
    std::vector<size_t> lens;
    std::vector<const char *> argv = argv_of(args, &lens);
    redisAppendCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lens.data());
    owed_.push_back(tag);
}

void Link::write_out() {
    int done = 0;
    while (ctx_ != nullptr && done == 0) {
        if (redisBufferWrite(ctx_, &done) != REDIS_OK) {
            close(ctx_->errstr[0] != '\0' ? ctx_->errstr : "connection lost");
        }
    }
}

void Link::select(int db) {
    if (selected_ == db || ctx_ == nullptr) return;
    append({"SELECT", std::to_string(db)});
    selected_ = db;
}

Reply Link::next(uint64_t *tag) {
    if (ctx_ == nullptr || owed_.empty()) return no_reply();
    void *raw = nullptr;
    if (redisGetReply(ctx_, &raw) != REDIS_OK || raw == nullptr) {
        close(ctx_->errstr[0] != '\0' ? ctx_->errstr : "connection lost");
        return no_reply();
    }
    *tag = owed_.front();
    owed_.pop_front();
    return Reply(static_cast<redisReply *>(raw), freeReplyObject);
}

Reply Link::call(const std::vector<std::string> &args) {
    if (ctx_ == nullptr) return no_reply();
    append(args, 0);
    // Replies owed before this one belong to the caller (who took them).
    while (owed_.size() > 1) {
        uint64_t tag = 0;
        if (!next(&tag)) return no_reply();
    }
    uint64_t tag = 0;
    return next(&tag);
}

}  // namespace platform::redis
