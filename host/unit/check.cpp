// The unit-wide check (check.h): what a converged unit's records must say,
// rule by rule, each derived from the records alone.
#include "check.h"

#include "check_index.h"

#include <algorithm>
#include <bitset>
#include <climits>
#include <optional>
#include <set>
#include <sstream>
#include <tuple>

namespace unit {

namespace {

constexpr int kTypeUnknown = 0, kTypeMb = 2, kTypeSfc = 5;

class Checker : UnitIndex {
  public:
    Checker(const UnitRecords &u, std::vector<Violation> *out) : UnitIndex(u), out_(out) {}

    void run() {
        for (const auto &s : u_.undecodable) add(0, "records", s, {});
        check_maps();
        for (auto &[id, v] : views_) {
            if (!v.r->present) continue;
            if (!v.r->map) add(id, "map", "the member has no topology map", {});
            check_members(v);
            check_placement(v);
            check_filters(v);
            check_mmc(v);
            check_forwarding(v);
        }
        check_both_ends();
        check_multicast();
    }

  private:
    void add(int member, const std::string &rule, const std::string &text,
             std::vector<std::string> records) {
        out_->push_back({member, rule, text, std::move(records)});
    }

    void check_maps() {
        auto expected = compute_maps(graph_);
        for (const auto &[id, v] : views_) {
            if (!v.r->present) continue;
            auto it = expected.find(id);
            if (it == expected.end()) continue;  // alone: its last map stays
            if (!v.r->map || !(*v.r->map == it->second))
                add(id, "map", "the topology map is not the one the links imply",
                    {"stored:   " + (v.r->map ? map_text(*v.r->map) : "(none)"),
                     "expected: " + map_text(it->second)});
        }
    }

    // A port is in use while its link is up and the cards at both ends are in
    // (a card out takes its module ids with it); it must be in use once, in
    // addition, the chips at both ends forward. A chip state that goes away
    // later does not take a port out of use.
    void check_members(View &v) {
        const int id = v.r->id;
        std::map<int, std::set<Port>> usable, ready;
        for (const auto &[p, l] : v.links) {
            auto far = peer(v, p);
            Card here{id, std::get<1>(p), std::get<2>(p)};
            Card there{std::get<0>(*far), std::get<1>(*far), std::get<2>(*far)};
            if (l->status() == 0 || chip_.count(here) == 0 || chip_.count(there) == 0) continue;
            usable[l->vsl_ap()].insert(p);
            if (forwarding_.count(here) != 0 && forwarding_.count(there) != 0)
                ready[l->vsl_ap()].insert(p);
        }
        for (int a : {1, 2}) {
            std::vector<std::string> recs;
            std::string what;
            for (const auto &p : ready[a]) {
                if (v.ap[a].count(p) == 0) {
                    what += " missing " + port_text(p) + ";";
                    recs.push_back(link_text(v, p));
                }
            }
            for (const auto &p : v.ap[a]) {
                if (usable[a].count(p) == 0) {
                    what += " not usable " + port_text(p) + ";";
                    recs.push_back(link_text(v, p));
                }
            }
            if (what.empty()) continue;
            auto rec = v.r->ap.find(a);
            recs.insert(recs.begin(),
                        rec == v.r->ap.end()
                            ? "no u_cluster.vsl_ap_member for apid " + std::to_string(a)
                            : text_of(rec->second));
            add(id, "members", "aggregate port " + std::to_string(a) + ":" + what, recs);
        }
    }

    void check_placement(View &v) {
        const int id = v.r->id;
        std::map<int, const u_cluster::kel_uc_balance *> placed;
        for (const auto &b : v.r->uc) placed[static_cast<int>(b.index().modid())] = &b;
        std::map<Port, int> load;
        for (int a : {1, 2}) {
            for (const auto &p : v.ap[a]) load[p] = 0;
        }
        for (const auto &[m, dev] : dev_of_) {
            auto it = placed.find(m);
            auto route = v.route.find(dev);
            int apid = route == v.route.end() ? 0 : route->second;
            bool wanted = dev != id && type_[m] != kTypeUnknown && type_[m] != kTypeSfc &&
                          (apid == 1 || apid == 2) && !v.ap[apid].empty();
            const std::string who =
                "module id " + std::to_string(m) + " of member " + std::to_string(dev);
            if (!wanted) {
                if (it != placed.end())
                    add(id, "placement", who + " is placed but should not be",
                        {text_of(*it->second)});
                continue;
            }
            if (it == placed.end()) {
                add(id, "placement",
                    who + " is not placed; the map routes member " + std::to_string(dev) +
                        " through aggregate port " + std::to_string(apid),
                    {text_of(v.r->ap.at(apid))});
                continue;
            }
            const auto &b = *it->second;
            const Port *port = nullptr;
            for (const auto &p : v.ap[apid]) {
                if (std::get<3>(p) == static_cast<int>(b.lport()) &&
                    chip(p) == static_cast<int>(b.local_modid()))
                    port = &p;
            }
            auto far = port != nullptr ? peer(v, *port) : std::nullopt;
            if (static_cast<int>(b.apid()) != apid || port == nullptr || !far ||
                chip(*far) != static_cast<int>(b.peer_modid())) {
                add(id, "placement",
                    who + " is not on a link of aggregate port " + std::to_string(apid) +
                        " with the right chips at both ends",
                    {text_of(b), text_of(v.r->ap.at(apid))});
                continue;
            }
            if (type_[m] != kTypeMb) ++load[*port];
        }
        for (const auto &[m, b] : placed) {
            if (dev_of_.count(m) == 0)
                add(id, "placement",
                    "module id " + std::to_string(m) + " has no allocation but is placed",
                    {text_of(*b)});
        }
        for (int a : {1, 2}) {
            int lo = INT32_MAX, hi = -1;
            std::string loads;
            for (const auto &p : v.ap[a]) {
                lo = std::min(lo, load[p]);
                hi = std::max(hi, load[p]);
                loads += " " + port_text(p) + ":" + std::to_string(load[p]);
            }
            if (hi - lo > 1)
                add(id, "placement",
                    "loads of aggregate port " + std::to_string(a) +
                        " differ by more than one:" + loads,
                    {});
        }
    }

    void check_filters(View &v) {
        const int id = v.r->id;
        if (!v.r->map || !v.map_valid) return;  // the module keeps its last filters
        Bits used = modids_[id];
        for (const auto &[dst, oif] : v.route) {
            if (dst >= 0 && dst < 16) used |= modids_[dst];
        }
        std::map<int, Bits> permit, pass;
        for (const auto &f : v.r->map->mfibs) {
            if (f.owner != id) continue;
            if (f.iif == 1 || f.iif == 2) permit[f.iif] |= modids_[f.src];
            for (size_t k = 0; k < f.oifs.size() && k < 2; ++k) {
                if (f.oifs[k] == 1 || f.oifs[k] == 2) pass[f.oifs[k]] |= modids_[f.src];
            }
        }
        for (int a : {1, 2}) {
            auto igr = v.r->igr.find(a);
            Bits have = igr == v.r->igr.end() ? Bits{} : bits_of(igr->second.permit_modid());
            compare(id, a, "ingress permit", have, permit[a],
                    igr == v.r->igr.end() ? "no u_cluster.vsl_srcmod_igr" : "");
            auto egr = v.r->egr.find(a);
            have = egr == v.r->egr.end() ? Bits{} : bits_of(egr->second.block_modid());
            compare(id, a, "egress block", have, used & ~pass[a],
                    egr == v.r->egr.end() ? "no u_cluster.vsl_srcmod_egr" : "");
        }
    }

    void compare(int id, int apid, const std::string &what, const Bits &have, const Bits &want,
                 const std::string &missing_record) {
        if (have == want) return;
        std::vector<std::string> recs;
        if (!missing_record.empty())
            recs.push_back(missing_record + " for apid " + std::to_string(apid));
        if ((want & ~have).any()) recs.push_back("lacks " + ids_text(want & ~have));
        if ((have & ~want).any()) recs.push_back("has in excess " + ids_text(have & ~want));
        add(id, "filters",
            what + " of aggregate port " + std::to_string(apid) + " is not what the map implies",
            recs);
    }

    // Main multicast of one member: (confirmed request's apid) -> the member it leads to.
    void check_mmc(View &v) {
        const int id = v.r->id;
        for (int a : {1, 2}) {
            std::vector<const u_cluster::mainmc_vlan *> reqs;
            for (const auto &r : v.r->mmc) {
                if (static_cast<int>(r.index().apid()) == a) reqs.push_back(&r);
            }
            if (v.ap[a].empty()) {
                for (const auto *r : reqs)
                    add(id, "mmc", "a main multicast request on an aggregate port without ports",
                        {text_of(*r)});
                continue;
            }
            if (reqs.size() != 1) {
                std::vector<std::string> recs;
                recs.reserve(reqs.size());
                for (const auto *r : reqs) recs.push_back(text_of(*r));
                add(id, "mmc",
                    "aggregate port " + std::to_string(a) + " has " + std::to_string(reqs.size()) +
                        " main multicast requests",
                    recs);
                continue;
            }
            const auto &r = *reqs[0];
            bool on_chip = false;
            for (const auto &p : v.ap[a])
                on_chip |= chip(p) == static_cast<int>(r.index().t_cfg_modid());
            bool all_vlans = r.vlan_size() == 128;
            for (int i = 0; all_vlans && i < 128; ++i) all_vlans = r.vlan(i) == 0xFFFFFFFFU;
            if (!on_chip || !all_vlans)
                add(id, "mmc",
                    "the main multicast request of aggregate port " + std::to_string(a) +
                        (on_chip ? " does not carry every VLAN"
                                 : " names a chip none of its ports is on"),
                    {text_of(r), text_of(v.r->ap.at(a))});
            if (confirmed(v, r) == nullptr)
                add(id, "mmc",
                    "the main multicast request of aggregate port " + std::to_string(a) +
                        " is not confirmed",
                    {text_of(r)});
        }
        for (const auto &st : v.r->mmc_st) {
            bool asked = false;
            for (const auto &r : v.r->mmc)
                asked |= r.index().SerializeAsString() == st.index().SerializeAsString();
            if (!asked) add(id, "mmc", "a confirmation answers no request", {text_of(st)});
        }
    }

    void check_forwarding(View &v) {
        const int id = v.r->id;
        if (v.ap[1].empty() && v.ap[2].empty()) return;
        for (const auto &f : u_.fwd) {
            if (static_cast<int>(f.index().devid()) != id) continue;
            if (f.fwd_state() != "forward")
                add(id, "forwarding", "the member's ports are in use but it does not forward",
                    {text_of(f)});
            return;
        }
        add(id, "forwarding", "the member's ports are in use but it has no forwarding state", {});
    }

    void check_both_ends() {
        for (const auto &[id, v] : views_) {
            if (!v.r->present) continue;
            for (const auto &[p, l] : v.links) {
                auto far = peer(v, p);
                auto pv = views_.find(std::get<0>(*far));
                if (l->status() == 0 || pv == views_.end() || !pv->second.r->present ||
                    id > pv->first)
                    continue;
                auto pl = pv->second.links.find(*far);
                if (pl == pv->second.links.end() || pl->second->status() == 0) continue;
                bool here = v.ap.count(l->vsl_ap()) && v.ap.at(l->vsl_ap()).count(p);
                const View &w = pv->second;
                int b = pl->second->vsl_ap();
                bool there = w.ap.count(b) && w.ap.at(b).count(*far);
                if (here != there)
                    add(id, "both-ends",
                        "link " + port_text(p) + " - " + port_text(*far) +
                            " is in the member list " +
                            (here ? "of member " + std::to_string(id)
                                  : "of member " + std::to_string(pv->first)) +
                            " only",
                        {text_of(*l), text_of(*pl->second)});
            }
            for (const auto &[a, ports] : v.ap) {
                std::set<int> to;
                for (const auto &p : ports) {
                    if (auto far = peer(v, p)) to.insert(std::get<0>(*far));
                }
                if (to.size() > 1)
                    add(id, "both-ends",
                        "aggregate port " + std::to_string(a) + " leads to " +
                            std::to_string(to.size()) + " members",
                        {text_of(v.r->ap.at(a))});
            }
        }
    }

    void check_multicast() {
        for (const auto &[s, vs] : views_) {
            if (!vs.r->present || modids_[s].none()) continue;
            const Bits &ids = modids_[s];
            std::set<int> reached{s};
            std::vector<int> queue{s};
            while (!queue.empty()) {
                int x = queue.back();
                queue.pop_back();
                const View &vx = views_.at(x);
                for (int c : {1, 2}) {
                    bool sent = false;
                    for (const auto &r : vx.r->mmc) {
                        if (static_cast<int>(r.index().apid()) == c && confirmed(vx, r))
                            sent = true;
                    }
                    if (!sent || (x != s && (egr(vx, c) & ids).any())) continue;
                    auto to = across(vx, c);
                    if (!to || !views_.at(to->first).r->present) continue;
                    if ((igr(views_.at(to->first), to->second) & ids) != ids) continue;
                    if (!reached.insert(to->first).second) {
                        add(s, "multicast",
                            "multicast from member " + std::to_string(s) + " reaches member " +
                                std::to_string(to->first) + " twice (a loop)",
                            {});
                        continue;
                    }
                    queue.push_back(to->first);
                }
            }
            std::set<int> part{s};
            for (bool grew = true; grew;) {
                grew = false;
                for (int m : std::set<int>(part)) {
                    auto it = graph_.apid.find(m);
                    if (it == graph_.apid.end()) continue;
                    for (const auto &[n, a] : it->second) grew |= part.insert(n).second;
                }
            }
            for (int m : part) {
                if (reached.count(m) == 0)
                    add(s, "multicast",
                        "multicast from member " + std::to_string(s) + " does not reach member " +
                            std::to_string(m),
                        {});
            }
        }
    }

    std::vector<Violation> *out_;
};

}  // namespace

std::vector<Violation> check_unit(const UnitRecords &u) {
    std::vector<Violation> v;
    Checker(u, &v).run();
    return v;
}

std::string violation_text(const Violation &v) {
    std::string s = (v.member != 0 ? "member " + std::to_string(v.member) : std::string("unit")) +
                    ": " + v.rule + ": " + v.text + "\n";
    // The first records make the point; a hop has sixteen of them.
    constexpr size_t kShown = 4;
    for (size_t i = 0; i < v.records.size() && i < kShown; ++i) s += "    " + v.records[i] + "\n";
    if (v.records.size() > kShown)
        s += "    (and " + std::to_string(v.records.size() - kShown) + " more records)\n";
    return s;
}

}  // namespace unit
