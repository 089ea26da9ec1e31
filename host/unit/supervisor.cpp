// The running unit (supervisor.h).
#include "supervisor.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "platform_ctl.h"
#include "record_text.h"

namespace unit {

namespace {

constexpr int kLocalDb = 3, kUdpDb = 8, kTopoDb = 14;
constexpr int kResumeFailed = 77;  // the module's exit when its session cannot be resumed
constexpr const char *kOutputs[] = {"u_cluster.kel_uc_balance", "u_cluster.vsl_srcmod_igr",
                                    "u_cluster.vsl_srcmod_egr", "u_cluster.vsl_ap_member",
                                    "u_cluster.mainmc_vlan",    "u_cluster.mainmc_vlan_st"};

void write_file(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace

uint64_t now_us() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000U + static_cast<uint64_t>(ts.tv_nsec) / 1000U;
}

Supervisor::Supervisor(const Unit &u, std::string unit_text, Options o)
    : u_(u), unit_text_(std::move(unit_text)), o_(std::move(o)), components_(u) {}

Supervisor::~Supervisor() {
    stop_all();
}

void Supervisor::log(const std::string &line) {
    if (o_.out == nullptr) return;
    *o_.out << std::fixed << std::setprecision(3) << "[" << std::setw(8)
            << static_cast<double>(now_us() - start_us_) / 1e6 << "] " << line << std::endl;
}

void Supervisor::start() {
    private_dir(o_.dir);
    start_us_ = mark_us_ = now_us();
    if (o_.redis.empty()) {
        redis_ = start_redis(o_.dir, &address_);
        log("redis-server started (pid " + std::to_string(redis_.pid) + ") on " + address_);
    } else {
        address_ = o_.redis;
    }
    std::string error;
    if (platform::db_use_redis(address_, &error) != 0)
        throw std::runtime_error("cannot use the Redis server " + address_ + ": " + error);
    host::keep_record_text();  // beside the bytes, for people reading the store
    state_ = UnitState::connect(address_, &error);
    if (!state_) throw std::runtime_error("cannot reach " + address_ + ": " + error);
    state_->publish_unit(unit_text_);
    for (const auto &m : u_.members) {
        present_.insert(m.id);
        state_->set_process("member:" + std::to_string(m.id), "restarting");
    }
    watch();
    components_.bring_up();
    log("inputs written: " + std::to_string(u_.members.size()) + " members, " +
        std::to_string(u_.links.size()) + " links");
    turn(0);               // the link records reach the producer, which writes the maps
    platform::db_wait(0);  // all of it on the server before a member reads it
    mark();
    for (const auto &m : u_.members) start_member(m.id);
    start_responder();
}

void Supervisor::watch() {
    for (const auto &m : u_.members) {
        const int id = m.id;
        platform::db_watch(
            id, kLocalDb, "p_dev.vsl_local_link", [this, id](int cmd, const std::string &packed) {
                p_dev::vsl_local_link l;
                if (!l.ParseFromString(packed)) return;
                auto k = std::make_tuple(l.index().devid(), l.index().slotid(), l.index().subslot(),
                                         l.index().lport());
                if (cmd == 3) {
                    links_[id].erase(k);
                } else {
                    links_[id][k] = {std::get<0>(k),  std::get<1>(k),   std::get<2>(k),
                                     std::get<3>(k),  l.status() != 0,  l.vsl_ap(),
                                     l.peer_dev_id(), l.peer_slot_id(), l.peer_sslot_id(),
                                     l.peer_lport()};
                }
                dirty_ = true;
            });
        for (const char *type : kOutputs) {
            platform::db_watch(id, kTopoDb, type,
                               [this, id](int, const std::string &) { event(id); });
        }
        // The maps already stored: written again only when they change.
        platform::db_view(id);
        for (const auto &s : platform::db_records(kLocalDb, map_record_type(m.ring_cut))) {
            Map map;
            if (map_from_packed(s.packed, &map)) written_[id] = map;
        }
    }
    platform::db_view(0);
    platform::db_watch(0, kUdpDb, "u_cluster.kel_dev_fwdstate",
                       [this](int cmd, const std::string &packed) {
                           u_cluster::kel_dev_fwdstate f;
                           if (cmd == 3 || !f.ParseFromString(packed)) return;
                           fwd_written_us_[static_cast<int>(f.index().devid())] = now_us();
                           event();
                       });
}

void Supervisor::event(int member) {
    ++events_;
    last_event_us_ = now_us();
    if (member != 0) last_write_us_[member] = last_event_us_;
}

void Supervisor::produce() {
    if (!dirty_) return;
    dirty_ = false;
    std::vector<LinkEnd> all;
    for (const auto &[m, ends] : links_) {
        for (const auto &[k, e] : ends) all.push_back(e);
    }
    const int saved = platform::db_view_member();
    for (const auto &[id, map] : compute_maps(live_graph(all, present_))) {
        auto it = written_.find(id);
        if (it != written_.end() && it->second == map) continue;
        platform::db_view(id);
        platform::db_set(kLocalDb, map_record_type(u_.member(id)->ring_cut), map_packed(map));
        written_[id] = map;
        event();
        log("producer: member " + std::to_string(id) + "'s map " + map_text(map));
    }
    platform::db_view(saved);
}

void Supervisor::start_member(int id) {
    const std::string base = o_.dir + "/member" + std::to_string(id);
    write_file(base + ".dpm", member_script(u_, id, o_.log_level));
    Child c = spawn("member " + std::to_string(id),
                    {o_.host, "--redis", address_, "--member", std::to_string(id), "--log",
                     base + ".log", "--serve", base + ".dpm"},
                    base + ".out");
    members_[id] = c;
    state_->set_process("member:" + std::to_string(id), "running " + std::to_string(c.pid));
    log("member " + std::to_string(id) + " started (pid " + std::to_string(c.pid) + ")");
}

void Supervisor::stop_member(int id, int sig, bool leave) {
    auto it = members_.find(id);
    if (it == members_.end()) return;
    int status = stop_child(it->second.pid, sig, 5000);
    log("member " + std::to_string(id) + " (pid " + std::to_string(it->second.pid) + ") " +
        status_text(status));
    members_.erase(it);
    platform::db_free_member(id);
    if (state_)
        state_->set_process("member:" + std::to_string(id), leave ? "stopped" : "restarting");
    if (leave) {
        present_.erase(id);
        dirty_ = true;
    }
}

void Supervisor::start_responder() {
    std::string script;
    for (const auto &m : u_.members) script += "respond " + std::to_string(m.id) + "\n";
    write_file(o_.dir + "/responder.dpm", script);
    responder_ = spawn("responder",
                       {o_.host, "--redis", address_, "--log", o_.dir + "/responder.log", "--serve",
                        o_.dir + "/responder.dpm"},
                       o_.dir + "/responder.out");
    state_->set_process("responder", "running " + std::to_string(responder_.pid));
    log("responder started (pid " + std::to_string(responder_.pid) + ")");
}

void Supervisor::stop_responder() {
    if (responder_.pid == 0) return;
    int status = stop_child(responder_.pid, SIGTERM, 5000);
    log("responder (pid " + std::to_string(responder_.pid) + ") " + status_text(status));
    responder_ = {};
    if (state_) state_->set_process("responder", "stopped");
}

void Supervisor::inject(const Fault &f) {
    log(f.text);
    switch (f.kind) {
        case Fault::LinkDown:
        case Fault::LinkUp:
            components_.set_link(f.port, f.kind == Fault::LinkUp);
            break;
        case Fault::CardOut:
        case Fault::CardIn:
            components_.set_card(f.card, f.kind == Fault::CardIn);
            break;
        case Fault::HopDown:
        case Fault::HopUp:
            components_.set_hop(f.member, f.other, f.kind == Fault::HopUp);
            break;
        case Fault::MemberRestart:
            stop_member(f.member, SIGKILL, false);
            start_member(f.member);
            break;
        case Fault::MemberStop:
            stop_member(f.member, SIGTERM, true);
            break;
        case Fault::MemberStart:
            if (members_.count(f.member) != 0) break;
            present_.insert(f.member);
            components_.announce_chips(f.member);
            dirty_ = true;
            turn(0);  // its map first, as for the first start
            start_member(f.member);
            break;
        case Fault::ResponderRestart:
            stop_responder();
            start_responder();
            break;
        case Fault::RedisKill: {
            // The connections of the unit's processes: those opened after
            // this supervisor's own (connection ids only grow). Its own stay,
            // so that the components' writes that follow are not lost.
            std::string mine, list;
            state_->command({"CLIENT", "ID"}, &mine);
            state_->command({"CLIENT", "LIST", "TYPE", "normal"}, &list);
            const long long own = std::atoll(mine.c_str());
            int killed = 0;
            std::istringstream lines(list);
            for (std::string line; std::getline(lines, line);) {
                if (line.rfind("id=", 0) != 0) continue;
                const long long id = std::atoll(line.c_str() + 3);
                if (id > own && state_->command({"CLIENT", "KILL", "ID", std::to_string(id)}))
                    ++killed;
            }
            log("redis: " + std::to_string(killed) + " connections of the unit's processes killed");
            break;
        }
    }
    platform::db_wait(0);  // send what the components wrote
}

void Supervisor::turn(int wait_ms) {
    platform::run_until_idle();
    produce();
    for (Ended e = reap_one(); e.pid != 0; e = reap_one()) {
        if (e.pid == redis_.pid) {
            log("redis-server " + status_text(e.status));
            redis_ = {};
            failed_ = true;
            continue;
        }
        if (e.pid == responder_.pid) {
            log("responder " + status_text(e.status) + ": starting it again");
            failed_ = true;
            start_responder();
            continue;
        }
        for (auto &[id, c] : members_) {
            if (c.pid != e.pid) continue;
            const int mid = id;
            members_.erase(mid);
            platform::db_free_member(mid);
            if (WIFEXITED(e.status) && WEXITSTATUS(e.status) == kResumeFailed) {
                log("member " + std::to_string(mid) + " " + status_text(e.status) +
                    " (its database session could not be resumed): starting it again");
                start_member(mid);
            } else {
                log("member " + std::to_string(mid) + " " + status_text(e.status) +
                    ": it has left the unit (see " + o_.dir + "/member" + std::to_string(mid) +
                    ".out)");
                state_->set_process("member:" + std::to_string(mid), "stopped");
                present_.erase(mid);
                dirty_ = true;
                failed_ = true;
            }
            break;
        }
    }
    produce();
    if (now_us() - last_beat_us_ > 1000000U && state_) {
        state_->heartbeat();
        last_beat_us_ = now_us();
    }
    if (wait_ms > 0 && platform::db_wait(wait_ms)) platform::run_until_idle();
}

void Supervisor::mark() {
    mark_us_ = now_us();
}

double Supervisor::since_mark_ms(uint64_t t) const {
    return t > mark_us_ ? static_cast<double>(t - mark_us_) / 1000.0 : 0.0;
}

std::vector<MemberInfo> Supervisor::member_infos() const {
    std::vector<MemberInfo> v;
    for (const auto &m : u_.members) v.push_back({m.id, present_.count(m.id) != 0, m.ring_cut});
    return v;
}

std::vector<Violation> Supervisor::check_now() {
    return check_unit(read_unit_records(member_infos()));
}

Settled Supervisor::settle(std::optional<int> restarted) {
    // The check reads every record of the unit: run it once the output writes
    // have paused, and again at least every half second, until it holds.
    constexpr uint64_t kQuietUs = 40000, kRecheckUs = 500000;
    const uint64_t deadline = mark_us_ + static_cast<uint64_t>(o_.settle_timeout_ms) * 1000U;
    uint64_t checked_events = UINT64_MAX, last_check = now_us();
    Settled s;
    for (;;) {
        turn(5);
        const uint64_t now = now_us();
        // Quiet since the change, too: the first writes may still be on their way.
        const bool quiet = now - std::max(last_event_us_, mark_us_) >= kQuietUs;
        const bool timeout = now >= deadline || (o_.stop != nullptr && *o_.stop != 0);
        if (!timeout && !(quiet && events_ != checked_events) && now - last_check < kRecheckUs)
            continue;
        checked_events = events_;
        last_check = now;
        s.violations = check_now();
        bool fresh = !restarted || fwd_written_us_[*restarted] > mark_us_;
        if (!fresh && timeout)
            s.violations.push_back({*restarted,
                                    "forwarding",
                                    "the restarted member did not write its forwarding state",
                                    {}});
        // A write that came while the check read the records: judge again.
        if (!timeout && s.violations.empty() && fresh) {
            turn(0);
            if (events_ != checked_events) continue;
        }
        if ((s.violations.empty() && fresh) || timeout) {
            s.held = s.violations.empty() && fresh;
            s.converge_ms = since_mark_ms(last_event_us_);
            for (const auto &[m, t] : last_write_us_) {
                if (t > mark_us_) s.member_ms[m] = since_mark_ms(t);
            }
            s.verified_ms = since_mark_ms(now_us());
            return s;
        }
    }
}

std::vector<std::pair<std::string, pid_t>> Supervisor::pids() const {
    std::vector<std::pair<std::string, pid_t>> v;
    for (const auto &[id, c] : members_) v.emplace_back(c.name, c.pid);
    if (responder_.pid != 0) v.emplace_back("responder", responder_.pid);
    if (redis_.pid != 0) v.emplace_back("redis-server", redis_.pid);
    return v;
}

void Supervisor::stop_all() {
    for (auto it = members_.begin(); it != members_.end(); it = members_.erase(it)) {
        int status = stop_child(it->second.pid, SIGTERM, 5000);
        log("member " + std::to_string(it->first) + " (pid " + std::to_string(it->second.pid) +
            ") " + status_text(status));
    }
    stop_responder();
    if (state_) state_->forget();
    state_.reset();
    if (redis_.pid != 0) {
        int status = stop_child(redis_.pid, SIGTERM, 5000);
        log("redis-server (pid " + std::to_string(redis_.pid) + ") " + status_text(status));
        redis_ = {};
    }
}

}  // namespace unit
