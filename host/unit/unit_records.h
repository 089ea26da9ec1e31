// The records of a whole unit at one moment, read through the object-database
// client (any store): each member's own LOCAL_DB and TOPO_DB, the shared
// ASIC_DB and UDP_DB. What the check judges and the picture draws.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "p_dev.pb.h"
#include "s_intf.pb.h"
#include "topology.h"
#include "u_cluster.pb.h"

namespace unit {

struct MemberRecords {
    int id = 0;
    bool present = true;  // in the unit (its process runs or restarts)
    int ring_cut = 0;
    std::vector<p_dev::vsl_local_link> links;
    std::optional<Map> map;
    std::vector<u_cluster::kel_uc_balance> uc;
    std::map<int, u_cluster::vsl_srcmod_igr> igr;  // by apid
    std::map<int, u_cluster::vsl_srcmod_egr> egr;
    std::map<int, u_cluster::vsl_ap_member> ap;
    std::vector<u_cluster::mainmc_vlan> mmc;
    std::vector<u_cluster::mainmc_vlan_st> mmc_st;
};

struct UnitRecords {
    std::map<int, MemberRecords> members;
    std::vector<s_intf::evt_mod_alloc> allocs;
    std::vector<u_cluster::vsl_chip_fwdstate> chips;
    std::vector<u_cluster::kel_dev_fwdstate> fwd;
    std::vector<std::string> undecodable;  // "member 2 TOPO_DB u_cluster....: ..."
};

struct MemberInfo {
    int id;
    bool present;
    int ring_cut;
};

// Reads every database of the listed members (the store in view is changed
// and put back).
UnitRecords read_unit_records(const std::vector<MemberInfo> &members);

// The link records as the topology computation reads them.
std::vector<LinkEnd> link_ends(const UnitRecords &u);

// One line for a record in messages ("u_cluster.kel_uc_balance { index { modid: 3 } ... }").
std::string text_of(const google::protobuf::Message &m);

}  // namespace unit
