// The unit-wide check on the records of a converged two-member unit, and on
// each of them spoilt the way a fault of the module or of a component would
// spoil it: every spoilt copy is caught by the rule that names it.
#include <gtest/gtest.h>

#include <google/protobuf/text_format.h>

#include <functional>

#include "check.h"

namespace {

using unit::MemberRecords;
using unit::UnitRecords;

template <typename T>
T rec(const std::string &text) {
    T m;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &m)) << text;
    return m;
}

std::string words(std::initializer_list<int> ids, int count) {
    std::vector<uint32_t> w(static_cast<size_t>(count), 0);
    for (int id : ids) w[static_cast<size_t>(id / 32)] |= 1U << (id % 32);
    std::string s;
    for (auto x : w) s += (s.empty() ? "" : ", ") + std::to_string(x);
    return s;
}
std::string bitmap(const char *field, std::initializer_list<int> ids) {
    return std::string(field) + ": [" + words(ids, 64) + "]";
}

// Members 1 and 2 joined by link 1/1/0/1 - 2/1/0/1 (apid 1 at both ends);
// chips 1 and 2 carry the link, module id 3 is member 2's line card.
MemberRecords member(int me, int peer, std::initializer_list<int> placed) {
    const std::string m = std::to_string(me), p = std::to_string(peer);
    MemberRecords r;
    r.id = me;
    r.links.push_back(rec<p_dev::vsl_local_link>(
        "index { devid: " + m + " slotid: 1 lport: 1 } status: 1 vsl_ap: 1 peer_dev_id: " + p +
        " peer_slot_id: 1 peer_lport: 1"));
    r.map = unit::Map{me, 0, {{me, peer, 1}}, {{me, peer, 1, {1}}}};
    for (int id : placed)
        r.uc.push_back(rec<u_cluster::kel_uc_balance>("index { modid: " + std::to_string(id) +
                                                      " } local_modid: " + m +
                                                      " apid: 1 lport: 1 peer_modid: " + p));
    std::string vlans = "vlan: [";
    for (int i = 0; i < 128; ++i) vlans += std::string(i ? ", " : "") + "4294967295";
    vlans += "]";
    r.ap[1] = rec<u_cluster::vsl_ap_member>("index { apid: 1 } member { devid: " + m +
                                            " slot: 1 lport: 1 }");
    r.mmc.push_back(rec<u_cluster::mainmc_vlan>(
        "index { t_cfg_modid: " + m + " apid: 1 } " + vlans + " local_vsl { devid: " + m +
        " slot: 1 lport: 1 } peer_vsl { devid: " + p + " slot: 1 lport: 1 }"));
    r.mmc_st.push_back(
        rec<u_cluster::mainmc_vlan_st>("index { t_cfg_modid: " + m + " apid: 1 } " + vlans));
    return r;
}

UnitRecords converged() {
    UnitRecords u;
    u.members[1] = member(1, 2, {2, 3});
    u.members[2] = member(2, 1, {1});
    u.members[1].igr[1] =
        rec<u_cluster::vsl_srcmod_igr>("index { apid: 1 } " + bitmap("permit_modid", {2, 3}));
    u.members[2].igr[1] =
        rec<u_cluster::vsl_srcmod_igr>("index { apid: 1 } " + bitmap("permit_modid", {1}));
    u.members[1].egr[1] =
        rec<u_cluster::vsl_srcmod_egr>("index { apid: 1 } " + bitmap("block_modid", {1}));
    u.members[2].egr[1] =
        rec<u_cluster::vsl_srcmod_egr>("index { apid: 1 } " + bitmap("block_modid", {2, 3}));
    for (int m : {1, 2})
        u.members[m].egr[2] =
            rec<u_cluster::vsl_srcmod_egr>("index { apid: 2 } " + bitmap("block_modid", {1, 2, 3}));
    for (const char *a : {"index { devid: 1 slotid: 1 } modid: 1 node_type: DM_TYPE_LC",
                          "index { devid: 2 slotid: 1 } modid: 2 node_type: DM_TYPE_LC",
                          "index { devid: 2 slotid: 2 } modid: 3 node_type: DM_TYPE_LC"})
        u.allocs.push_back(rec<s_intf::evt_mod_alloc>(a));
    for (int m : {1, 2}) {
        u.chips.push_back(rec<u_cluster::vsl_chip_fwdstate>(
            "index { t_devid: " + std::to_string(m) +
            " slot: 1 } fwd_state: \"forward\" modid: " + std::to_string(m)));
        u.fwd.push_back(rec<u_cluster::kel_dev_fwdstate>("index { devid: " + std::to_string(m) +
                                                         " } fwd_state: \"forward\""));
    }
    return u;
}

std::string rules(const std::vector<unit::Violation> &v) {
    std::string s;
    for (const auto &x : v) s += std::to_string(x.member) + ":" + x.rule + " ";
    return s;
}

TEST(Check, ConvergedUnitHolds) {
    auto v = unit::check_unit(converged());
    for (const auto &x : v) ADD_FAILURE() << unit::violation_text(x);
}

TEST(Check, EachSpoiltRecordIsCaughtByItsRule) {
    struct Row {
        const char *name;
        std::function<void(UnitRecords &)> spoil;
        std::string rules;
    };
    auto u1 = [](UnitRecords &u) -> MemberRecords & { return u.members[1]; };
    const Row rows[] = {
        {"a module id left unplaced", [&](UnitRecords &u) { u1(u).uc.pop_back(); }, "1:placement "},
        {"a module id on a link with the wrong far chip",
         [&](UnitRecords &u) { u1(u).uc[0].set_peer_modid(3); }, "1:placement "},
        {"an own module id missing from the egress block",
         [&](UnitRecords &u) { u1(u).egr[1].set_block_modid(0, 0); }, "1:filters "},
        {"a port missing from one end's member list",
         [&](UnitRecords &u) { u.members[2].ap[1].clear_member(); },
         "2:members 2:placement 2:mmc 1:both-ends 2:multicast "},
        {"a request without its confirmation", [&](UnitRecords &u) { u1(u).mmc_st.clear(); },
         "1:mmc 1:multicast "},
        {"a confirmation without a request",
         [&](UnitRecords &u) {
             u1(u).mmc_st.push_back(u1(u).mmc_st[0]);
             u1(u).mmc_st[1].mutable_index()->set_apid(2);
         },
         "1:mmc "},
        {"a map the links do not imply", [&](UnitRecords &u) { u.members[2].map->fibs[0].oif = 2; },
         "2:map 2:placement "},
        {"an ingress permit that drops the far member",
         [&](UnitRecords &u) { u.members[2].igr[1].set_permit_modid(0, 0); },
         "2:filters 1:multicast "},
        {"a member that does not forward", [&](UnitRecords &u) { u.fwd[1].set_fwd_state("block"); },
         "2:forwarding "},
        {"an own module id placed",
         [&](UnitRecords &u) {
             u1(u).uc.push_back(u1(u).uc[0]);
             u1(u).uc.back().mutable_index()->set_modid(1);
         },
         "1:placement "},
        {"a second port, left empty: loads differ by two",
         [&](UnitRecords &u) {
             auto l = u1(u).links[0];
             l.mutable_index()->set_lport(2);
             l.set_peer_lport(2);
             u1(u).links.push_back(l);
             auto *p = u1(u).ap[1].add_member();
             *p = u1(u).ap[1].member(0);
             p->set_lport(2);
             auto far = u.members[2].links[0];
             far.mutable_index()->set_lport(2);
             far.set_peer_lport(2);
             u.members[2].links.push_back(far);
             auto *q = u.members[2].ap[1].add_member();
             *q = u.members[2].ap[1].member(0);
             q->set_lport(2);
         },
         "1:placement "},
        {"links down at both ends, ports still in use",
         [&](UnitRecords &u) {
             u1(u).links[0].set_status(0);
             u.members[2].links[0].set_status(0);
         },
         "1:members 2:members "},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        UnitRecords u = converged();
        row.spoil(u);
        EXPECT_EQ(rules(unit::check_unit(u)), row.rules);
    }
}

TEST(Check, ViolationNamesItsRecords) {
    UnitRecords u = converged();
    u.members[1].uc.pop_back();
    auto v = unit::check_unit(u);
    ASSERT_EQ(v.size(), 1U);
    EXPECT_EQ(unit::violation_text(v[0]),
              "member 1: placement: module id 3 of member 2 is not placed; the map routes member "
              "2 through aggregate port 1\n"
              "    u_cluster.vsl_ap_member { index { apid: 1 } member { devid: 1 slot: 1 lport: 1 "
              "} }\n");
}

}  // namespace
