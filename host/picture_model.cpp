// Gathering the records of a unit's members into the picture model
// (picture_model.h): each record decoded once into what the drawing needs.
#include "picture_model.h"

#include <algorithm>
#include <bit>

#include "p_dev.pb.h"
#include "s_intf.pb.h"

namespace host {

namespace {

constexpr int kAsicDb = 0;
constexpr int kLocalDb = 3;
constexpr int kUdpDb = 8;
constexpr int kTopoDb = 14;

}  // namespace

namespace pictures {

namespace {

Card card_of(const p_dev::vsl_port_index &i) {
    return {i.devid(), i.slotid(), i.subslot()};
}
Port port_of(const u_cluster::vslport &p) {
    return {{p.devid(), p.slot(), p.sslot()}, p.lport()};
}

int bit_count(const google::protobuf::RepeatedField<uint32_t> &words) {
    int n = 0;
    for (uint32_t w : words) n += std::popcount(w);
    return n;
}

// Either form of the topology map (which one the module reads depends on the
// ring-cut type); only the member's own routes matter to it.
template <class Fibs, class Mfibs>
void take_routes(const Fibs &fibs, const Mfibs &mfibs, Member *m) {
    for (const auto &f : fibs) {
        if (f.owner_mid() == static_cast<int64_t>(m->devid)) {
            m->routes[f.oif_id()].first.insert(f.dst_id());
        }
    }
    for (const auto &f : mfibs) {
        if (f.owner_mid() == static_cast<int64_t>(m->devid)) {
            m->routes[f.iif_id()].second.insert(f.src_id());
        }
    }
}

// Decodes one record into `unit` and `m`; false when its bytes do not decode.
bool take_record(const platform::Record &r, Unit *unit, Member *m) {
    auto key = [](int db, const char *type, const platform::Record &s) {
        return s.db == db && s.type == type;
    };
    if (key(kAsicDb, "s_intf.evt_mod_alloc", r)) {
        s_intf::evt_mod_alloc a;
        if (!a.ParseFromString(r.packed)) return false;
        const auto &i = a.index();
        Chip &c = unit->chips[{{i.devid(), i.slotid(), i.sslotid()}, i.unit()}];
        c.modid = a.modid();
        c.node_type = a.node_type();
        unit->modid_type.emplace(a.modid(), a.node_type());
    } else if (key(kUdpDb, "u_cluster.vsl_chip_fwdstate", r)) {
        u_cluster::vsl_chip_fwdstate s;
        if (!s.ParseFromString(r.packed)) return false;
        const auto &i = s.index();
        Chip &c = unit->chips[{{i.t_devid(), i.slot(), i.sslot()}, i.unit()}];
        if (c.modid < 0) c.modid = s.modid();
        c.fwd = s.fwd_state();
    } else if (key(kUdpDb, "u_cluster.kel_dev_fwdstate", r)) {
        u_cluster::kel_dev_fwdstate s;
        if (!s.ParseFromString(r.packed)) return false;
        unit->dev_fwd.emplace(s.index().devid(), s.fwd_state());
    } else if (key(kLocalDb, "p_dev.vsl_local_link", r)) {
        p_dev::vsl_local_link l;
        if (!l.ParseFromString(r.packed)) return false;
        m->links[{card_of(l.index()), l.index().lport()}] = {
            l.status() != 0,
            l.vsl_ap(),
            {{l.peer_dev_id(), l.peer_slot_id(), l.peer_sslot_id()}, l.peer_lport()}};
    } else if (key(kLocalDb, "p_dev.dtm_route_info", r)) {
        p_dev::dtm_route_info d;
        if (!d.ParseFromString(r.packed)) return false;
        take_routes(d.fibs(), d.mfibs(), m);
    } else if (key(kLocalDb, "p_dev.dtm_fiap_route_info", r)) {
        p_dev::dtm_fiap_route_info d;
        if (!d.ParseFromString(r.packed)) return false;
        take_routes(d.fiap_fibs(), d.fiap_mfibs(), m);
    } else if (key(kTopoDb, "u_cluster.vsl_ap_member", r)) {
        u_cluster::vsl_ap_member a;
        if (!a.ParseFromString(r.packed)) return false;
        for (const auto &p : a.member()) m->ap_members[a.index().apid()].insert(port_of(p));
    } else if (key(kTopoDb, "u_cluster.kel_uc_balance", r)) {
        u_cluster::kel_uc_balance b;
        if (!b.ParseFromString(r.packed)) return false;
        m->balance.push_back(b);
    } else if (key(kTopoDb, "u_cluster.mainmc_vlan", r)) {
        u_cluster::mainmc_vlan v;
        if (!v.ParseFromString(r.packed)) return false;
        m->mmc[{v.index().apid(), v.index().t_cfg_modid()}] = {port_of(v.local_vsl()),
                                                               port_of(v.peer_vsl())};
    } else if (key(kTopoDb, "u_cluster.mainmc_vlan_st", r)) {
        u_cluster::mainmc_vlan_st v;
        if (!v.ParseFromString(r.packed)) return false;
        m->mmc_confirmed.insert({v.index().apid(), v.index().t_cfg_modid()});
    } else if (key(kTopoDb, "u_cluster.vsl_srcmod_igr", r)) {
        u_cluster::vsl_srcmod_igr f;
        if (!f.ParseFromString(r.packed)) return false;
        m->filters[f.index().apid()].first = bit_count(f.permit_modid());
    } else if (key(kTopoDb, "u_cluster.vsl_srcmod_egr", r)) {
        u_cluster::vsl_srcmod_egr f;
        if (!f.ParseFromString(r.packed)) return false;
        m->filters[f.index().apid()].second = bit_count(f.block_modid());
    }
    return true;
}

}  // namespace

std::string num(int64_t v) {
    return std::to_string(v);
}

std::string port_text(const Port &p) {
    const Card &c = p.card;
    return num(c.dev) + "/" + num(c.slot) + "/" + (c.sslot != 0 ? num(c.sslot) + "/" : "") +
           num(p.lport);
}

std::string plural(int n, const char *one, const char *many) {
    return num(n) + " " + (n == 1 ? one : many);
}

Unit gather(const std::vector<MemberView> &views) {
    Unit unit;
    // In device order, so that records shared by several views (ASIC_DB and
    // UDP_DB) are taken in the same order whatever order the views come in.
    std::vector<const MemberView *> sorted;
    sorted.reserve(views.size());
    for (const auto &v : views) sorted.push_back(&v);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const MemberView *a, const MemberView *b) { return a->devid < b->devid; });
    for (const MemberView *v : sorted) {
        Member &m = unit.members[v->devid];
        m.devid = v->devid;
        m.process = std::max(m.process, v->process);
        for (const auto &r : v->records) {
            if (!take_record(r, &unit, &m)) ++m.undecodable;
        }
    }
    return unit;
}

}  // namespace pictures

MemberView local_member_view(uint32_t devid) {
    MemberView v{devid, {}, ProcessState::unknown};
    for (int db : {kAsicDb, kLocalDb, kUdpDb, kTopoDb}) {
        auto records = platform::db_records(db);
        v.records.insert(v.records.end(), records.begin(), records.end());
    }
    return v;
}

}  // namespace host
