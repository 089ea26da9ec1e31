// Chaos (chaos.h). The choices depend only on the seed and the unit file,
// never on timing: every fault is repaired before the next is drawn, so each
// starts from the whole unit.
#include "chaos.h"

#include <iomanip>
#include <map>
#include <vector>

namespace unit {

namespace {

// splitmix64: the same numbers on every machine and library.
struct Rng {
    uint64_t s;
    uint64_t next() {
        uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    size_t below(size_t n) { return static_cast<size_t>(next() % n); }
};

Fault fault(Fault::Kind k, const std::string &text) {
    Fault f{};
    f.kind = k;
    f.text = text;
    return f;
}

}  // namespace

const std::set<std::string> &chaos_kinds() {
    static const std::set<std::string> kinds = {"link",      "card", "member",
                                                "responder", "hop",  "redis"};
    return kinds;
}

Report run_chaos(Supervisor &s, const Unit &u, const ChaosOptions &o, std::ostream &out) {
    Report report;
    Rng rng{o.seed};
    std::vector<std::string> kinds(o.kinds.begin(), o.kinds.end());
    std::vector<Card> cards;
    for (const auto &m : u.members) cards.insert(cards.end(), m.cards.begin(), m.cards.end());
    std::vector<std::pair<int, int>> hops;
    for (const auto &l : u.links) {
        std::pair<int, int> h{std::min(l.a.member, l.b.member), std::max(l.a.member, l.b.member)};
        if (std::find(hops.begin(), hops.end(), h) == hops.end()) hops.push_back(h);
    }
    const uint64_t start = now_us();
    int n = 0;
    auto print = [&](const std::string &what, const Settled &r) {
        out << std::fixed << std::setprecision(1) << "[" << std::setw(7)
            << static_cast<double>(now_us() - start) / 1e6 << " s] " << what << ": "
            << Report::line(r) << std::endl;
        for (const auto &v : r.violations) out << violation_text(v);
    };
    auto step = [&](const std::string &kind, const Fault &f, std::optional<int> restarted) {
        s.mark();
        s.inject(f);
        Settled r = s.settle(restarted);
        report.add(kind, f.text, r);
        print(f.text, r);
    };
    while ((o.max_faults == 0 || n < o.max_faults) &&
           static_cast<double>(now_us() - start) / 1e6 < o.seconds && !s.failed()) {
        ++n;
        const std::string kind = kinds[rng.below(kinds.size())];
        if (kind == "link" || kind == "responder") {
            if (u.links.empty()) continue;
            const End e = u.links[rng.below(u.links.size())].a;
            Fault down = fault(Fault::LinkDown, "link down " + end_text(e));
            Fault up = fault(Fault::LinkUp, "link up " + end_text(e));
            down.port = up.port = e;
            if (kind == "responder") {
                // Requests made while the responder is away: on its return it
                // must confirm what lacks a confirmation and withdraw the rest.
                s.mark();
                s.stop_responder();
                s.inject(down);
                s.start_responder();
                Settled r = s.settle();
                report.add("responder restart", "responder restart, " + down.text, r);
                print("responder restart, " + down.text, r);
            } else {
                step("link down", down, std::nullopt);
            }
            step("link up", up, std::nullopt);
        } else if (kind == "card") {
            const Card &c = cards[rng.below(cards.size())];
            Fault f = fault(Fault::CardOut, "card out " + card_text(c));
            f.card = c;
            step("card out", f, std::nullopt);
            f = fault(Fault::CardIn, "card in " + card_text(c));
            f.card = c;
            step("card in", f, std::nullopt);
        } else if (kind == "member") {
            const int m = u.members[rng.below(u.members.size())].id;
            Fault f = fault(Fault::MemberRestart, "member restart " + std::to_string(m));
            f.member = m;
            step("member restart", f, m);
        } else if (kind == "hop") {
            if (hops.empty()) continue;
            auto [a, b] = hops[rng.below(hops.size())];
            Fault f =
                fault(Fault::HopDown, "hop down " + std::to_string(a) + " " + std::to_string(b));
            f.member = a;
            f.other = b;
            step("hop down", f, std::nullopt);
            f.kind = Fault::HopUp;
            f.text = "hop up " + std::to_string(a) + " " + std::to_string(b);
            step("hop up", f, std::nullopt);
        } else if (kind == "redis") {
            // Connections dropped, and a card goes (its module ids deleted)
            // before the members are back: a resumed session must deliver the
            // writes and the deletions it missed.
            const Card &c = cards[rng.below(cards.size())];
            Fault out = fault(Fault::CardOut, "card out " + card_text(c));
            Fault in = fault(Fault::CardIn, "card in " + card_text(c));
            out.card = in.card = c;
            s.mark();
            s.inject(fault(Fault::RedisKill, "redis kill"));
            s.inject(out);
            Settled r = s.settle();
            report.add("redis kill", "redis kill, " + out.text, r);
            print("redis kill, " + out.text, r);
            step("card in", in, std::nullopt);
        }
    }
    return report;
}

}  // namespace unit
