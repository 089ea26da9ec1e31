// Reading a unit's records (unit_records.h).
#include "unit_records.h"

#include "platform_ctl.h"
#include "record_text.h"

namespace unit {

namespace {

constexpr int kAsicDb = 0, kLocalDb = 3, kUdpDb = 8, kTopoDb = 14;

template <typename T>
bool decode(const platform::Record &s, T *out, UnitRecords *u, const std::string &where) {
    if (out->ParseFromString(s.packed)) return true;
    u->undecodable.push_back(where + " " + s.type + ": the stored bytes do not decode");
    return false;
}

template <typename T>
std::vector<T> all(int db, const std::string &type, UnitRecords *u, const std::string &where) {
    std::vector<T> v;
    for (const auto &s : platform::db_records(db, type)) {
        T r;
        if (decode(s, &r, u, where)) v.push_back(std::move(r));
    }
    return v;
}

template <typename T>
std::map<int, T> by_apid(int db, const std::string &type, UnitRecords *u,
                         const std::string &where) {
    std::map<int, T> m;
    for (auto &r : all<T>(db, type, u, where)) m[static_cast<int>(r.index().apid())] = r;
    return m;
}

}  // namespace

UnitRecords read_unit_records(const std::vector<MemberInfo> &members) {
    UnitRecords u;
    const int saved = platform::db_view_member();
    for (const auto &info : members) {
        platform::db_view(info.id);
        const std::string where = "member " + std::to_string(info.id);
        MemberRecords m;
        m.id = info.id;
        m.present = info.present;
        m.ring_cut = info.ring_cut;
        m.links = all<p_dev::vsl_local_link>(kLocalDb, "p_dev.vsl_local_link", &u, where);
        for (const auto &s : platform::db_records(kLocalDb, map_record_type(info.ring_cut))) {
            Map map;
            if (map_from_packed(s.packed, &map)) {
                m.map = map;
            } else {
                u.undecodable.push_back(where + " " + s.type + ": the stored bytes do not decode");
            }
        }
        m.uc = all<u_cluster::kel_uc_balance>(kTopoDb, "u_cluster.kel_uc_balance", &u, where);
        m.igr = by_apid<u_cluster::vsl_srcmod_igr>(kTopoDb, "u_cluster.vsl_srcmod_igr", &u, where);
        m.egr = by_apid<u_cluster::vsl_srcmod_egr>(kTopoDb, "u_cluster.vsl_srcmod_egr", &u, where);
        m.ap = by_apid<u_cluster::vsl_ap_member>(kTopoDb, "u_cluster.vsl_ap_member", &u, where);
        m.mmc = all<u_cluster::mainmc_vlan>(kTopoDb, "u_cluster.mainmc_vlan", &u, where);
        m.mmc_st = all<u_cluster::mainmc_vlan_st>(kTopoDb, "u_cluster.mainmc_vlan_st", &u, where);
        u.members[info.id] = std::move(m);
    }
    platform::db_view(0);
    u.allocs = all<s_intf::evt_mod_alloc>(kAsicDb, "s_intf.evt_mod_alloc", &u, "unit");
    u.chips = all<u_cluster::vsl_chip_fwdstate>(kUdpDb, "u_cluster.vsl_chip_fwdstate", &u, "unit");
    u.fwd = all<u_cluster::kel_dev_fwdstate>(kUdpDb, "u_cluster.kel_dev_fwdstate", &u, "unit");
    platform::db_view(saved);
    return u;
}

std::vector<LinkEnd> link_ends(const UnitRecords &u) {
    std::vector<LinkEnd> v;
    for (const auto &[id, m] : u.members) {
        for (const auto &l : m.links) {
            v.push_back({l.index().devid(), l.index().slotid(), l.index().subslot(),
                         l.index().lport(), l.status() != 0, l.vsl_ap(), l.peer_dev_id(),
                         l.peer_slot_id(), l.peer_sslot_id(), l.peer_lport()});
        }
    }
    return v;
}

std::string text_of(const google::protobuf::Message &m) {
    return m.GetTypeName() + " { " + host::short_text(m) + " }";
}

}  // namespace unit
