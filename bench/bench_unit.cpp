// The unit benchmark: a whole unit of processes on a private Redis server (a
// ring of N members, L VSL links per hop, about M module ids), brought up by
// the same supervisor as dpm-unit, then faults, each repaired, R rounds:
// a link down and up, a line card out and in, the card of a hop's links out
// and in, a whole hop down and up, a member restarted. Each change is timed
// from the moment it is made to the last write of a member's output (or of a
// map), counted once the unit-wide check holds. Also: the bring-up, the
// memory of each member process, and where the CPU time went.
//
//   bench_unit [--members N] [--links L] [--modids M] [--rounds R] [--dir DIR]
//              [--changes link,line-card,hop-card,hop,restart]   (default: all)
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "report.h"
#include "supervisor.h"

namespace {

// A ring like scenarios/units/ring4.yaml: hop m-(m+1) on slot 1 (apid 1) when
// m is odd, on slot 2 (apid 2) when even; the rest of the module ids on line
// cards of at most 64 chips and one main board per member.
std::string ring(int members, int links, int modids) {
    std::ostringstream s;
    s << "name: ring" << members << "\nmembers:\n";
    int next = 1;
    const int per = modids / members;
    for (int m = 1; m <= members; ++m) {
        s << "  - id: " << m << "\n    role: " << (m == 1 ? "master" : "slave")
          << "\n    cards:\n      - {slot: 1, modids: [" << next
          << "]}\n      - {slot: 2, modids: [" << next + 1 << "]}\n";
        next += 2;
        int slot = 3;
        for (int left = per - 3; left > 0; left -= 64, ++slot) {
            int k = std::min(64, left);
            s << "      - {slot: " << slot << ", modids: [" << next << "-" << next + k - 1
              << "]}\n";
            next += k;
        }
        s << "      - {slot: " << slot << ", type: MB, modids: [" << next++ << "]}\n";
    }
    s << "links:\n";
    for (int m = 1; m <= members; ++m) {
        int o = m % members + 1, apid = m % 2 == 1 ? 1 : 2;
        if (members == 2 && m == 2) apid = 2;  // two members: both hops join 1 and 2
        s << "  - {a: " << m << "/" << apid << "/0/1, b: " << o << "/" << apid
          << "/0/1, apid: " << apid << ", count: " << links << "}\n";
    }
    return s.str();
}

// Nanoseconds this process has run on a CPU (the scheduler's own count).
uint64_t cpu_ns(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    uint64_t ns = 0;
    in >> ns;
    return ns;
}

// "VmHWM" (peak) or "VmRSS" in KiB.
long memory_kib(pid_t pid, const std::string &what) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(what + ":", 0) == 0) return std::atol(line.c_str() + what.size() + 1);
    }
    return -1;
}

}  // namespace

int main(int argc, char **argv) {
    int members = 4, links = 16, modids = 1996, rounds = 5;
    std::string dir = "/tmp/bench-unit-" + std::to_string(getpid());
    std::string changes = "link,line-card,hop-card,hop,restart";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string w = argv[i];
        if (w == "--members")
            members = std::atoi(argv[i + 1]);
        else if (w == "--links")
            links = std::atoi(argv[i + 1]);
        else if (w == "--modids")
            modids = std::atoi(argv[i + 1]);
        else if (w == "--rounds")
            rounds = std::atoi(argv[i + 1]);
        else if (w == "--dir")
            dir = argv[i + 1];
        else if (w == "--changes")
            changes = argv[i + 1];
    }
    auto wanted = [&](const std::string &c) {
        return ("," + changes + ",").find("," + c + ",") != std::string::npos;
    };
    const std::string text = ring(members, links, modids);
    unit::Unit u = unit::parse_unit(text, "ring");
    unit::Supervisor::Options o;
    o.dir = dir;
    o.host = DPM_HOST_PATH;
    o.settle_timeout_ms = 60000;
    std::ofstream log(dir + ".log");
    o.out = &log;
    unit::Supervisor s(u, text, o);
    s.start();
    unit::Settled up = s.settle();
    unit::Report report;
    report.add("bring-up", "bring-up", up);
    // CPU per change: per process, what it ran between the two samples (a
    // process started in between counts from zero).
    auto sample = [&]() {
        std::map<pid_t, std::pair<std::string, uint64_t>> at;
        for (const auto &[name, pid] : s.pids())
            at[pid] = {name.rfind("member", 0) == 0 ? "members" : name, cpu_ns(pid)};
        at[getpid()] = {"supervisor", cpu_ns(getpid())};
        return at;
    };
    std::map<std::string, std::map<std::string, uint64_t>> cpu_by_kind;
    std::map<std::string, int> count_by_kind;
    auto change = [&](const std::string &kind, const std::string &fault) {
        unit::Fault f = unit::parse_fault(u, fault);
        auto &c = cpu_by_kind[kind];
        auto before = sample();
        s.mark();
        s.inject(f);
        unit::Settled r = s.settle(
            f.kind == unit::Fault::MemberRestart ? std::optional<int>(f.member) : std::nullopt);
        for (const auto &[pid, now] : sample()) {
            auto was = before.find(pid);
            c[now.first] += now.second - (was == before.end() ? 0 : was->second.second);
        }
        ++count_by_kind[kind];
        report.add(kind, fault, r);
        std::cerr << fault << ": " << unit::Report::line(r) << "; members' last writes:";
        for (const auto &[m, ms] : r.member_ms) std::cerr << " " << m << ":" << ms;
        std::cerr << std::endl;
    };
    // What the check alone costs (it runs after every change, once quiet).
    {
        auto before = sample();
        for (int i = 0; i < 3; ++i) s.check_now();
        for (const auto &[pid, now] : sample()) {
            auto was = before.find(pid);
            cpu_by_kind["(check alone)"][now.first] +=
                now.second - (was == before.end() ? 0 : was->second.second);
        }
        count_by_kind["(check alone)"] = 3;
    }
    // A line card of the last member, the card of hop 1-2 at member 2, the
    // hop 2-3 (a ring of two has no member 3: its hops are not faulted).
    const std::string last = std::to_string(members);
    const std::string line_card = last + "/3/0", vsl_card = "2/1/0";
    for (int r = 0; r < rounds; ++r) {
        std::string port = "1/1/0/" + std::to_string(1 + r % links);
        if (wanted("link")) {
            change("link down", "link down " + port);
            change("link up", "link up " + port);
        }
        if (wanted("line-card")) {
            change("line card out", "card out " + line_card);
            change("line card in", "card in " + line_card);
        }
        if (wanted("hop-card")) {
            change("hop card out", "card out " + vsl_card);
            change("hop card in", "card in " + vsl_card);
        }
        if (members > 2 && wanted("hop")) {
            change("hop down", "hop down 2 3");
            change("hop up", "hop up 2 3");
        }
        if (wanted("restart")) change("member restart", "member restart " + last);
    }
    std::cout << "ring of " << members << " members, " << links << " links per hop, " << modids
              << " module ids, " << rounds << " rounds\n"
              << report.text();
    std::cout << "memory per member (peak / now, MiB):";
    for (const auto &[name, pid] : s.pids()) {
        if (name.rfind("member", 0) != 0) continue;
        std::printf(" %s %.1f/%.1f;", name.c_str(), memory_kib(pid, "VmHWM") / 1024.0,
                    memory_kib(pid, "VmRSS") / 1024.0);
    }
    std::cout << "\nCPU ms per change (all members / redis-server / responder / supervisor):\n";
    for (const auto &[kind, c] : cpu_by_kind) {
        double n = count_by_kind[kind];
        auto at = [&](const char *k) {
            auto it = c.find(k);
            return it == c.end() ? 0.0 : static_cast<double>(it->second) / 1e6 / n;
        };
        std::printf("  %-16s %7.1f %7.1f %7.1f %7.1f\n", kind.c_str(), at("members"),
                    at("redis-server"), at("responder"), at("supervisor"));
    }
    s.stop_all();
    return report.unsettled() == 0 ? 0 : 1;
}
