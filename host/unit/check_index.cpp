// The unit's records indexed for the check (check_index.h).
#include "check_index.h"

#include <sstream>

namespace unit {

std::string ids_text(const Bits &b) {
    std::ostringstream os;
    os << b.count() << " module id" << (b.count() == 1 ? "" : "s") << ":";
    int shown = 0;
    for (size_t i = 0; i < b.size(); ++i) {
        if (!b[i]) continue;
        size_t j = i;
        while (j + 1 < b.size() && b[j + 1]) ++j;
        if (++shown > 8) {
            os << " ...";
            break;
        }
        os << (shown > 1 ? ", " : " ") << i;
        if (j > i) os << "-" << j;
        i = j;
    }
    return os.str();
}

std::string port_text(const Port &p) {
    auto [d, s, ss, l] = p;
    return std::to_string(d) + "/" + std::to_string(s) + "/" + std::to_string(ss) + "/" +
           std::to_string(l);
}

Port port_of(const p_dev::vsl_local_link &l) {
    return {l.index().devid(), l.index().slotid(), l.index().subslot(), l.index().lport()};
}

Port port_of(const u_cluster::vslport &p) {
    return {static_cast<int>(p.devid()), static_cast<int>(p.slot()), static_cast<int>(p.sslot()),
            static_cast<int>(p.lport())};
}

UnitIndex::UnitIndex(const UnitRecords &u) : u_(u) {
    for (const auto &a : u_.allocs) {
        const auto &i = a.index();
        if (a.modid() < 1 || a.modid() > 2047 || i.devid() < 0 || i.devid() > 31) continue;
        modids_[i.devid()].set(static_cast<size_t>(a.modid()));
        type_[a.modid()] = a.node_type();
        dev_of_[a.modid()] = i.devid();
        if (i.unit() == 0) chip_[{i.devid(), i.slotid(), i.sslotid()}] = a.modid();
    }
    for (const auto &c : u_.chips) {
        const auto &i = c.index();
        if (c.fwd_state() == "forward")
            forwarding_.insert({static_cast<int>(i.t_devid()), static_cast<int>(i.slot()),
                                static_cast<int>(i.sslot())});
    }
    std::set<int> present;
    for (const auto &[id, m] : u_.members) {
        if (m.present) present.insert(id);
        View &v = views_[id];
        v.r = &m;
        for (const auto &l : m.links) v.links[port_of(l)] = &l;
        for (const auto &[apid, rec] : m.ap) {
            for (const auto &p : rec.member()) v.ap[apid].insert(port_of(p));
        }
        if (m.map) {
            for (const auto &f : m.map->fibs) {
                if (f.owner == id) v.route.emplace(f.dst, f.oif);
            }
            v.map_valid = true;
            for (const auto &[dst, oif] : v.route) {
                if ((oif == 1 || oif == 2) && v.ap[oif].empty()) v.map_valid = false;
            }
            for (const auto &f : m.map->mfibs) {
                for (size_t k = 0; f.owner == id && k < f.oifs.size() && k < 2; ++k) {
                    int a = f.oifs[k];
                    if ((a == 1 || a == 2) && v.ap[a].empty()) v.map_valid = false;
                }
            }
        }
    }
    graph_ = live_graph(link_ends(u_), present);
}

int UnitIndex::chip(int dev, int slot, int sslot) const {
    auto it = chip_.find({dev, slot, sslot});
    return it == chip_.end() ? 0 : it->second;
}
std::string UnitIndex::link_text(const View &v, const Port &p) const {
    auto it = v.links.find(p);
    return it == v.links.end() ? "no p_dev.vsl_local_link for " + port_text(p)
                               : text_of(*it->second);
}

std::optional<Port> UnitIndex::peer(const View &v, const Port &p) const {
    auto it = v.links.find(p);
    if (it == v.links.end()) return std::nullopt;
    const auto &l = *it->second;
    return Port{l.peer_dev_id(), l.peer_slot_id(), l.peer_sslot_id(), l.peer_lport()};
}

const u_cluster::mainmc_vlan_st *UnitIndex::confirmed(const View &v,
                                                      const u_cluster::mainmc_vlan &r) const {
    for (const auto &st : v.r->mmc_st) {
        if (st.index().t_cfg_modid() == r.index().t_cfg_modid() &&
            st.index().apid() == r.index().apid() && bits_of(st.vlan()) == bits_of(r.vlan()))
            return &st;
    }
    return nullptr;
}

std::optional<std::pair<int, int>> UnitIndex::across(const View &v, int apid) const {
    auto it = v.ap.find(apid);
    if (it == v.ap.end() || it->second.empty()) return std::nullopt;
    auto far = peer(v, *it->second.begin());
    auto w = views_.find(std::get<0>(*far));
    if (w == views_.end()) return std::nullopt;
    auto l = w->second.links.find(*far);
    if (l == w->second.links.end()) return std::nullopt;
    return std::make_pair(w->first, l->second->vsl_ap());
}

Bits UnitIndex::igr(const View &v, int a) const {
    auto it = v.r->igr.find(a);
    return it == v.r->igr.end() ? Bits{} : bits_of(it->second.permit_modid());
}
Bits UnitIndex::egr(const View &v, int a) const {
    auto it = v.r->egr.find(a);
    return it == v.r->egr.end() ? Bits{} : bits_of(it->second.block_modid());
}

}  // namespace unit
