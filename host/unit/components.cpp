// The unit's other components (components.h).
#include "components.h"

#include <sstream>

#include "p_dev.pb.h"
#include "platform_ctl.h"
#include "s_intf.pb.h"
#include "u_cluster.pb.h"

namespace unit {

namespace {

constexpr int kAsicDb = 0, kLocalDb = 3, kUdpDb = 8;

auto key(const End &e) {
    return std::make_tuple(e.member, e.slot, e.sslot, e.port);
}

uint32_t gslot(const Card &c) {
    return static_cast<uint32_t>((c.slot & 0x1F) | ((c.member - 1) & 0x1F) << 5 |
                                 (c.sslot & 0x1F) << 10);
}

void write_alloc(const Card &c, size_t unit, bool present) {
    s_intf::evt_mod_alloc r;
    auto *idx = r.mutable_index();
    idx->set_devid(c.member);
    idx->set_slotid(c.slot);
    idx->set_sslotid(c.sslot);
    idx->set_unit(static_cast<int>(unit));
    if (!present) {
        platform::db_del(kAsicDb, "s_intf.evt_mod_alloc", r.SerializeAsString());
        return;
    }
    r.set_modid(c.modids[unit]);
    r.set_unit(static_cast<int>(unit));
    r.set_node_type(static_cast<p_dev::dm_node_type_e>(c.node_type));
    platform::db_hmset(kAsicDb, "s_intf.evt_mod_alloc", r.SerializeAsString());
}

// A card's VSL chip (the chip of its ports) forwards, or is gone.
void write_chip(const Card &c, bool present) {
    u_cluster::vsl_chip_fwdstate r;
    auto *idx = r.mutable_index();
    idx->set_t_devid(static_cast<uint32_t>(c.member));
    idx->set_slot(static_cast<uint32_t>(c.slot));
    idx->set_sslot(static_cast<uint32_t>(c.sslot));
    if (!present) {
        platform::db_del(kUdpDb, "u_cluster.vsl_chip_fwdstate", r.SerializeAsString());
        return;
    }
    r.set_fwd_state("forward");
    r.set_modid(static_cast<uint32_t>(c.modids[0]));
    platform::db_set(kUdpDb, "u_cluster.vsl_chip_fwdstate", r.SerializeAsString());
}

}  // namespace

bool Components::card_in(int member, int slot, int sslot) const {
    return cards_out_.count({member, slot, sslot}) == 0;
}

bool Components::link_up(const Link &l) const {
    int lo = std::min(l.a.member, l.b.member), hi = std::max(l.a.member, l.b.member);
    return links_down_.count(key(l.a)) == 0 && hops_down_.count({lo, hi}) == 0 &&
           card_in(l.a.member, l.a.slot, l.a.sslot) && card_in(l.b.member, l.b.slot, l.b.sslot);
}

void Components::write_end(const End &e, const End &peer, bool up) {
    p_dev::vsl_local_link r;
    auto *idx = r.mutable_index();
    idx->set_devid(e.member);
    idx->set_slotid(e.slot);
    idx->set_subslot(e.sslot);
    idx->set_lport(e.port);
    r.set_status(up ? 1 : 0);
    r.set_vsl_ap(e.apid);
    r.set_peer_dev_id(peer.member);
    r.set_peer_slot_id(peer.slot);
    r.set_peer_sslot_id(peer.sslot);
    r.set_peer_lport(peer.port);
    platform::db_view(e.member);
    // The link monitor writes its records field by field, the form the
    // module reads.
    platform::db_hmset(kLocalDb, "p_dev.vsl_local_link", r.SerializeAsString());
    if (up) {
        written_up_.insert(key(e));
    } else {
        written_up_.erase(key(e));
    }
    written_.insert(key(e));
}

// Write the ends whose state changed: both ends of a link go down together
// and come up together.
void Components::write_links() {
    const int saved = platform::db_view_member();
    for (const auto &l : u_.links) {
        bool up = link_up(l);
        for (const auto &[e, peer] : {std::pair{l.a, l.b}, std::pair{l.b, l.a}}) {
            if (written_.count(key(e)) != 0 && (written_up_.count(key(e)) != 0) == up) continue;
            write_end(e, peer, up);
        }
    }
    platform::db_view(saved);
}

void Components::bring_up() {
    // The device-data library's port table (every link end's chip and
    // physical port), shared once through the server with every process.
    for (const auto &l : u_.links) {
        for (const End *e : {&l.a, &l.b}) {
            platform::set_chipid(e->member, e->slot, e->port,
                                 static_cast<uint32_t>(u_.chip_of(*e)));
            platform::set_phyid(e->member, e->slot, e->port, Unit::phy_of(*e));
        }
    }
    for (const auto &m : u_.members) {
        for (const auto &c : m.cards) platform::card_add(gslot(c));
    }
    for (const auto &m : u_.members) {
        for (const auto &c : m.cards) {
            for (size_t i = 0; i < c.modids.size(); ++i) write_alloc(c, i, true);
        }
    }
    for (const auto &m : u_.members) announce_chips(m.id);
    write_links();
}

void Components::announce_chips(int member) {
    const Member *m = u_.member(member);
    if (m == nullptr) return;
    for (const auto &c : m->cards) {
        if (c.has_vsl_ports && card_in(c.member, c.slot, c.sslot)) write_chip(c, true);
    }
}

void Components::set_link(const End &one_end, bool up) {
    const Link *l = u_.link_at(one_end);
    if (l == nullptr) return;
    if (up) {
        links_down_.erase(key(l->a));
    } else {
        links_down_.insert(key(l->a));
    }
    write_links();
}

void Components::set_hop(int m, int n, bool up) {
    std::pair<int, int> hop{std::min(m, n), std::max(m, n)};
    if (up) {
        hops_down_.erase(hop);
    } else {
        hops_down_.insert(hop);
    }
    write_links();
}

void Components::set_card(const Card &c, bool in) {
    if (in == card_in(c.member, c.slot, c.sslot)) return;
    if (!in) {
        // Taken out: its ports' links drop at both ends, the device-data
        // library announces the removal, the chip and its module ids go.
        cards_out_.insert({c.member, c.slot, c.sslot});
        write_links();
        platform::card_del(gslot(c));
        if (c.has_vsl_ports) write_chip(c, false);
        for (size_t i = 0; i < c.modids.size(); ++i) write_alloc(c, i, false);
        return;
    }
    cards_out_.erase({c.member, c.slot, c.sslot});
    platform::card_add(gslot(c));
    for (size_t i = 0; i < c.modids.size(); ++i) write_alloc(c, i, true);
    if (c.has_vsl_ports) write_chip(c, true);
    write_links();
}

std::string member_script(const Unit &u, int member, int log_level) {
    const Member *m = u.member(member);
    std::ostringstream s;
    s << "# Member " << member << " of the unit " << u.name << ", written by dpm-unit.\n"
      << "set level-file \"" << log_level << "\"\n"
      << "set ring-cut " << (m != nullptr ? m->ring_cut : 0) << "\n"
      << "set node-type " << (m != nullptr ? m->node_type : 1) << "\n";
    static const char *const kRoles[] = {"DM_ROLE_NONE", "DM_ROLE_MASTER", "DM_ROLE_SLAVE",
                                         "DM_ROLE_CANDIDATE"};
    if (m != nullptr && m->role != 0)
        s << "agent set p_dev.dp_lib_grole { my_grole: " << kRoles[m->role] << " }\n";
    s << "start\nexpect output \"start: rv 0\"\n";
    return s.str();
}

}  // namespace unit
