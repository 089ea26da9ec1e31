// The connection to the Redis server: where it is (the address forms), who we
// are (credentials), what the server must offer (INFO with its run id,
// databases 0..15, our scripts), and the pipeline of commands whose replies
// are still owed. Every read waits at most the round-trip timeout.
#pragma once

#include <hiredis/hiredis.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace platform::redis {

using Reply = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;
Reply no_reply();
// The text of a string, status or error reply ("" otherwise).
std::string str(const redisReply *r);
bool is_error(const redisReply *r);

struct Address {
    bool unix_socket = false;
    std::string path;  // unix socket
    std::string host;
    int port = 6379;
    std::string user, password;
    std::string shown;  // the address for messages, never with its password
};

// HOST:PORT, unix:PATH, redis://[USER[:PASSWORD]@]HOST[:PORT][/], unix:///PATH.
// The password, when the URL has none, comes from `password_file` (its first
// line) or the environment variable DPM_REDIS_PASSWORD.
bool parse_address(const std::string &text, const std::string &password_file, Address *out,
                   std::string *error);

enum Script {
    kBatch,  // records written and deleted, one or many per call
    kBracketBegin,
    kBracketEnd,
    kBracketDrop,
    kUnit,
    kSnapshot,
    kPosition,
    kUnitState,
    kLease,
    kScripts
};

class Link {
  public:
    Link(Address address, int timeout_ms) : address_(std::move(address)), timeout_ms_(timeout_ms) {}
    ~Link();
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    // Connect and check the server (credentials, INFO run id, databases,
    // scripts). False with *error naming the cause.
    bool open(std::string *error);
    bool up() const { return ctx_ != nullptr; }
    // The connection is unusable (a read failed or timed out).
    void close(const std::string &why);
    const std::string &why_closed() const { return why_; }
    const std::string &run_id() const { return run_id_; }
    const Address &address() const { return address_; }
    int timeout_ms() const { return timeout_ms_; }

    // Queue a command; its reply comes back from next() with its tag.
    void append(const std::vector<std::string> &args, uint64_t tag = 0);
    void select(int db);
    int selected() const { return selected_; }
    size_t owed() const { return owed_.size(); }
    // Write what is queued to the server now, without waiting for replies.
    void write_out();
    // The oldest owed reply and its tag; null when the connection broke.
    Reply next(uint64_t *tag);
    // One command now. Every owed reply must have been taken first.
    Reply call(const std::vector<std::string> &args);

    const std::string &sha(Script s) const { return sha_[s]; }
    bool load_scripts(std::string *error);

    // Benchmarks: every command sent, kept while on.
    bool logging = false;
    std::vector<std::vector<std::string>> log;

  private:
    bool check(const char *what, const Reply &r, std::string *error);

    Address address_;
    int timeout_ms_;
    redisContext *ctx_ = nullptr;
    std::string run_id_, why_;
    std::string sha_[kScripts];
    int selected_ = -1;
    std::deque<uint64_t> owed_;
};

}  // namespace platform::redis
