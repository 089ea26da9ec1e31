// The members of a unit side by side (picture_model.h): each member's ports
// as its own records say, each link with both of its ends, the links folded by
// pair of ends, the members in ring or chain order, and a note for every
// record that is stale or contradicts another. Nothing here judges the module:
// a note says what the records say, so that a person can see it at once.
#include <algorithm>

#include "p_dev.pb.h"
#include "picture_model.h"

namespace host::pictures {

namespace {

class Examiner {
  public:
    explicit Examiner(const Unit &u) : u_(u) {}
    Facts run();

  private:
    void own_ports(const Member &m, MemberFacts &f);
    void balance(const Member &m, MemberFacts &f);
    void main_multicast(const Member &m, MemberFacts &f);
    void process(const Member &m, MemberFacts &f);
    void links();
    bool listed(const Member *owner, const Port &p);
    void order();

    const Unit &u_;
    Facts f_;
    std::map<int64_t, Card> modid_card_;
    std::map<Port, std::pair<const Member *, const Link *>> ends_;  // link records by port
};

// Notes of one kind per aggregate port: "apid 1: 1/1/3 in the member list,
// link down" or "apid 1: 2 ports in the member list, link down".
void port_notes(MemberFacts &f) {
    std::map<std::pair<int64_t, std::string>, std::vector<Port>> alike;
    for (const auto &[p, o] : f.ports) {
        if (!o.issue.empty()) alike[{o.apid, o.issue}].push_back(p);
    }
    for (const auto &[what, ports] : alike) {
        std::string who = ports.size() == 1 ? port_text(ports.front())
                                            : plural(static_cast<int>(ports.size()), "", "ports");
        f.notes.push_back("apid " + num(what.first) + ": " + who + " " + what.second);
    }
}

void Examiner::own_ports(const Member &m, MemberFacts &f) {
    for (const auto &[p, l] : m.links) {
        OwnPort o;
        o.apid = l.apid;
        o.link = &l;
        auto list = m.ap_members.find(l.apid);
        o.listed = list != m.ap_members.end() && list->second.count(p) > 0;
        if (l.apid != 1 && l.apid != 2) o.issue = "in an aggregate port that does not exist";
        if (o.listed && !l.up) o.issue = "in the member list, link down";
        f.ports.emplace(p, o);
    }
    for (const auto &[apid, ports] : m.ap_members) {
        for (const auto &p : ports) {
            auto [it, added] = f.ports.emplace(p, OwnPort{apid, nullptr, true, {}, "", ""});
            if (added) {
                it->second.issue = "in the member list without a link record";
            } else if (it->second.apid != apid) {
                it->second.issue = "in the member list of apid " + num(apid);
            }
        }
    }
    for (const auto &[p, o] : f.ports) {
        ApFacts &ap = f.aps[o.apid];
        if (o.link != nullptr && !o.link->up) {
            ++ap.down;
        } else if (o.listed) {
            ++ap.listed;
        } else {
            ++ap.waiting;
        }
    }
    for (const auto &[apid, r] : m.routes) (void)f.aps[apid];
    for (const auto &[apid, r] : m.filters) (void)f.aps[apid];
}

// Each destination module id counted on the port its balance record names.
// The balance only ever names ports of the member list; a record that names
// another port is older than the list, or the list older than it.
void Examiner::balance(const Member &m, MemberFacts &f) {
    std::map<int64_t, int> off_list;
    for (const auto &b : m.balance) {
        auto type = u_.modid_type.find(b.index().modid());
        bool main_board = type != u_.modid_type.end() && type->second == p_dev::DM_TYPE_MB;
        ApFacts &ap = f.aps[b.apid()];
        (main_board ? ap.load.main_boards : ap.load.count)++;
        auto card = modid_card_.find(b.local_modid());
        auto own =
            card == modid_card_.end() ? f.ports.end() : f.ports.find({card->second, b.lport()});
        if (own == f.ports.end() || own->second.apid != b.apid() || !own->second.listed) {
            ++off_list[b.apid()];
            continue;
        }
        (main_board ? own->second.load.main_boards : own->second.load.count)++;
    }
    for (const auto &[apid, n] : off_list) {
        f.notes.push_back("apid " + num(apid) + ": unicast of " +
                          plural(n, "module id", "module ids") +
                          " on a port not in the member list");
    }
    for (const auto &[p, o] : f.ports) {
        if (!o.listed || o.link == nullptr || !o.link->up) continue;
        ApFacts &ap = f.aps[o.apid];
        ap.min_load = ap.min_load < 0 ? o.load.count : std::min(ap.min_load, o.load.count);
        ap.max_load = std::max(ap.max_load, o.load.count);
    }
}

// A choice is keyed by its chip: when its port goes down and another port of
// the same chip is in the member list, the choice stays (the record still
// names the old port). Otherwise a choice on a port that is not up and listed,
// and a confirmation that answers no current request, are stale.
void Examiner::main_multicast(const Member &m, MemberFacts &f) {
    auto usable = [&](const OwnPort &o) { return o.listed && o.link != nullptr && o.link->up; };
    for (const auto &[key, choice] : m.mmc) {
        const int64_t apid = key.first, chip = key.second;
        std::string how = m.mmc_confirmed.count(key) ? "confirmed" : "waiting for confirmation";
        std::string line = "chip " + num(chip) + ", " + port_text(choice.local) + " to " +
                           port_text(choice.peer) + ", " + how;
        bool flagged = false;
        auto own = f.ports.find(choice.local);
        if (own != f.ports.end() && usable(own->second)) {
            own->second.mc = how;
        } else {
            auto card = modid_card_.find(chip);
            auto moved = std::find_if(f.ports.begin(), f.ports.end(), [&](const auto &q) {
                return card != modid_card_.end() && q.first.card == card->second &&
                       q.second.apid == apid && usable(q.second);
            });
            if (moved != f.ports.end()) {
                moved->second.mc = how;
                line += ", now on " + port_text(moved->first);
            } else {
                std::string why = own == f.ports.end() || own->second.link == nullptr
                                      ? "has no link record"
                                  : !own->second.link->up ? "is down"
                                                          : "is not in the member list";
                std::string note = "apid " + num(apid) + ": main multicast " + how;
                note += ", but " + port_text(choice.local) + " " + why;
                f.notes.push_back(note);
                flagged = true;
                if (own != f.ports.end()) {
                    std::string &issue = own->second.issue;
                    issue += (issue.empty() ? "main multicast " : "; main multicast ") + how;
                }
            }
        }
        f.aps[apid].mc.emplace_back(line, flagged);
    }
    for (const auto &key : m.mmc_confirmed) {
        if (m.mmc.count(key)) continue;
        const auto [apid, chip] = key;
        auto current = m.mmc.lower_bound({apid, INT64_MIN});
        bool other = current != m.mmc.end() && current->first.first == apid;
        f.notes.push_back(
            "apid " + num(apid) + ": confirmation of chip " + num(chip) +
            (other ? " is not the current request (chip " + num(current->first.second) + ")"
                   : " without a request"));
        f.aps[apid].mc.emplace_back("confirmation of chip " + num(chip) + " left over", true);
    }
}

void Examiner::process(const Member &m, MemberFacts &f) {
    auto fwd = u_.dev_fwd.find(m.devid);
    if (fwd != u_.dev_fwd.end() && m.process == ProcessState::stopped) {
        f.notes.push_back("forwarding state \"" + fwd->second +
                          "\" is stale: the process is stopped");
    } else if (fwd != u_.dev_fwd.end() && m.process == ProcessState::unreachable) {
        f.notes.push_back("forwarding state \"" + fwd->second +
                          "\" cannot be trusted: the process is unreachable");
    }
    if (m.undecodable > 0) {
        f.notes.push_back(plural(m.undecodable, "record does not decode", "records do not decode") +
                          " (left out)");
    }
}

bool Examiner::listed(const Member *owner, const Port &p) {
    const auto &ports = f_.members[owner->devid].ports;
    auto it = ports.find(p);
    return it != ports.end() && it->second.listed;
}

// Every link once, with the records of both of its ends where there are two.
void Examiner::links() {
    for (const auto &[dev, m] : u_.members) {
        for (const auto &[p, l] : m.links) ends_.emplace(p, std::pair{&m, &l});
    }
    std::set<std::pair<Port, Port>> seen;
    for (const auto &[p, at] : ends_) {
        const auto [owner, l] = at;
        if (!seen.insert(std::minmax(p, l->peer)).second) continue;
        LinkFacts lf{p, l->peer, l->up, listed(owner, p), ""};
        End a{p.card.dev, l->apid}, b{l->peer.card.dev, 0};
        (void)f_.members[a.first];  // both ends are drawn, whoever's records name them
        (void)f_.members[b.first];
        auto far = ends_.find(l->peer);
        if (far != ends_.end() && far->second.second->peer == p) {
            const Link &fl = *far->second.second;
            b.second = fl.apid;
            lf.up = l->up && fl.up;
            lf.listed = lf.listed && listed(far->second.first, l->peer);
            if (l->up != fl.up) {
                lf.issue = "up at " + port_text(l->up ? p : l->peer) + ", down at " +
                           port_text(l->up ? l->peer : p);
            } else if (l->apid != fl.apid) {
                lf.issue = "in apid " + num(l->apid) + " at " + port_text(p) + ", apid " +
                           num(fl.apid) + " at " + port_text(l->peer);
            }
        } else if (far != ends_.end()) {
            lf.issue = port_text(l->peer) + " names " + port_text(far->second.second->peer) +
                       " as its far end";
        } else if (u_.members.count(l->peer.card.dev)) {
            lf.issue = "no link record of " + port_text(l->peer);
        } else {
            f_.members[b.first].far_ports.insert(l->peer);
        }
        f_.flagged += !lf.issue.empty();
        Bundle &bundle = f_.bundles[std::minmax(a, b)];
        bundle.a = std::min(a, b);
        bundle.b = std::max(a, b);
        if (a > b) std::swap(lf.a, lf.b);
        bundle.links.push_back(lf);
    }
}

// Follow the links from the lowest device id (from a chain's lower end), to
// the lowest neighbour not yet taken; what the walk does not reach follows in
// device order. Members without links stand alone.
void Examiner::order() {
    std::map<int64_t, std::set<int64_t>> next;
    for (const auto &[dev, f] : f_.members) (void)next[dev];
    for (const auto &[key, b] : f_.bundles) {
        if (b.a.first == b.b.first) continue;
        next[b.a.first].insert(b.b.first);
        next[b.b.first].insert(b.a.first);
    }
    std::set<int64_t> taken;
    std::vector<int64_t> lone;
    for (const auto &[first, around] : next) {
        if (taken.count(first)) continue;
        if (around.empty()) {
            lone.push_back(first);
            taken.insert(first);
            continue;
        }
        std::set<int64_t> part{first}, todo{first};
        while (!todo.empty()) {
            int64_t d = *todo.begin();
            todo.erase(todo.begin());
            for (int64_t n : next[d]) {
                if (part.insert(n).second) todo.insert(n);
            }
        }
        auto end =
            std::find_if(part.begin(), part.end(), [&](int64_t d) { return next[d].size() == 1; });
        Strand s;
        s.devs.push_back(end != part.end() ? *end : first);
        taken.insert(s.devs.back());
        for (;;) {
            const auto &around_last = next[s.devs.back()];
            auto n = std::find_if(around_last.begin(), around_last.end(),
                                  [&](int64_t d) { return !taken.count(d); });
            if (n == around_last.end()) break;
            s.devs.push_back(*n);
            taken.insert(*n);
        }
        s.ring =
            s.devs.size() == part.size() && part.size() >= 3 &&
            std::all_of(part.begin(), part.end(), [&](int64_t d) { return next[d].size() == 2; });
        for (int64_t d : part) {
            if (taken.insert(d).second) s.devs.push_back(d);
        }
        f_.strands.push_back(s);
    }
    for (int64_t d : lone) f_.strands.push_back({{d}, false});
}

Facts Examiner::run() {
    for (const auto &[k, c] : u_.chips) {
        if (c.modid >= 0) modid_card_.emplace(c.modid, k.first);
    }
    for (const auto &[dev, m] : u_.members) {
        MemberFacts &f = f_.members[dev];
        f.read = true;
        own_ports(m, f);
        balance(m, f);
        port_notes(f);
        main_multicast(m, f);
        process(m, f);
        std::sort(f.notes.begin(), f.notes.end());  // by aggregate port
    }
    links();
    order();
    for (const auto &[dev, f] : f_.members) f_.flagged += static_cast<int>(f.notes.size());
    return std::move(f_);
}

}  // namespace

Facts examine(const Unit &unit) {
    return Examiner(unit).run();
}

}  // namespace host::pictures
