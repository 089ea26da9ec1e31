// Pictures of a unit: the DOT text of one known state of two members, fed in
// any order, against a golden file; and that Graphviz accepts it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "lexer.h"
#include "module_fixture.h"
#include "picture.h"
#include "records.h"

namespace {

platform::StoredRecord rec(int db, const std::string &type, const std::string &text) {
    std::string packed;
    EXPECT_TRUE(host::parse_record(host::record_type(type), text)->SerializeToString(&packed));
    return {db, type, "", packed, false};
}

// Member 1: apid 1 has a listed port carrying the main multicast (confirmed)
// and a waiting one, apid 2 a down link to member 3, whose module is not
// asked; one record does not decode. Member 2 sees the other end of 1/1/1 and
// waits for the confirmation of its own choice. Members 4 and 5 own chips only.
std::vector<host::MemberView> two_members() {
    const char *alloc = "s_intf.evt_mod_alloc", *link = "p_dev.vsl_local_link";
    std::vector<platform::StoredRecord> shared = {
        rec(0, alloc, "index { devid: 1 slotid: 1 } modid: 1 node_type: DM_TYPE_LC"),
        rec(0, alloc, "index { devid: 2 slotid: 1 } modid: 3 node_type: DM_TYPE_LC"),
        rec(0, alloc, "index { devid: 2 slotid: 9 } modid: 9 node_type: DM_TYPE_MB"),
        rec(0, alloc, "index { devid: 4 slotid: 1 } modid: 12"),
        rec(0, alloc, "index { devid: 5 slotid: 1 } modid: 13"),
        rec(8, "u_cluster.kel_dev_fwdstate", "index { devid: 1 } fwd_state: \"forward\""),
        rec(8, "u_cluster.kel_dev_fwdstate", "index { devid: 2 } fwd_state: \"block\""),
        rec(8, "u_cluster.vsl_chip_fwdstate",
            "index { t_devid: 1 slot: 1 } fwd_state: \"forward\" modid: 1"),
    };
    host::MemberView one{1, shared}, two{2, shared};
    auto add = [](host::MemberView &v, int db, const std::string &type, const std::string &text) {
        v.records.push_back(rec(db, type, text));
    };
    add(one, 3, link,
        "index { devid: 1 slotid: 1 lport: 1 } status: 1 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 "
        "peer_lport: 1");
    add(one, 3, link,
        "index { devid: 1 slotid: 1 lport: 2 } status: 1 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 "
        "peer_lport: 2");
    add(one, 3, link,
        "index { devid: 1 slotid: 2 lport: 1 } vsl_ap: 2 peer_dev_id: 3 peer_slot_id: 1 "
        "peer_lport: 1");
    add(one, 3, "p_dev.dtm_route_info",
        "fibs { owner_mid: 1 dst_id: 2 oif_id: 1 } fibs { owner_mid: 2 dst_id: 1 oif_id: 2 } "
        "mfibs { owner_mid: 1 src_id: 3 iif_id: 2 }");
    add(one, 14, "u_cluster.vsl_ap_member",
        "index { apid: 1 } member { devid: 1 slot: 1 lport: 1 }");
    add(one, 14, "u_cluster.kel_uc_balance", "index { modid: 3 } local_modid: 1 apid: 1 lport: 1");
    add(one, 14, "u_cluster.kel_uc_balance", "index { modid: 9 } local_modid: 1 apid: 1 lport: 1");
    add(one, 14, "u_cluster.mainmc_vlan",
        "index { t_cfg_modid: 1 apid: 1 } local_vsl { devid: 1 slot: 1 lport: 1 } "
        "peer_vsl { devid: 2 slot: 1 lport: 1 }");
    add(one, 14, "u_cluster.mainmc_vlan_st", "index { t_cfg_modid: 1 apid: 1 }");
    add(one, 14, "u_cluster.vsl_srcmod_igr", "index { apid: 1 } permit_modid: [8, 1]");
    one.records.push_back({14, "u_cluster.kel_uc_balance", "", "\xff\xff", false});
    add(two, 3, link,
        "index { devid: 2 slotid: 1 lport: 1 } status: 1 vsl_ap: 2 peer_dev_id: 1 peer_slot_id: 1 "
        "peer_lport: 1");
    add(two, 14, "u_cluster.vsl_ap_member",
        "index { apid: 2 } member { devid: 2 slot: 1 lport: 1 }");
    add(two, 14, "u_cluster.mainmc_vlan",
        "index { t_cfg_modid: 3 apid: 2 } local_vsl { devid: 2 slot: 1 lport: 1 } "
        "peer_vsl { devid: 1 slot: 1 lport: 1 }");
    return {one, two};
}

TEST(Picture, TwoMembersInAnyOrderGiveOneTextThatGraphvizDraws) {
    auto views = two_members();
    std::string dot = host::unit_dot(views, "two members");
    EXPECT_EQ(dot, dpm_test::golden("picture_two_members.dot"));

    std::reverse(views.begin(), views.end());
    for (auto &v : views) std::reverse(v.records.begin(), v.records.end());
    EXPECT_EQ(host::unit_dot(views, "two members"), dot);

    auto dir = std::filesystem::temp_directory_path() / ("dpm-picture-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    EXPECT_NO_THROW(host::write_picture(dot, (dir / "unit.svg").string()));
    EXPECT_NO_THROW(
        host::write_picture(host::unit_dot(views, ""), (dir / "untitled.svg").string()));
    EXPECT_GT(std::filesystem::file_size(dir / "unit.svg"), 0u);
    EXPECT_THROW(host::write_picture(dot, (dir / "unit.jpg").string()), host::ScriptError);
    EXPECT_THROW(host::write_picture("digraph {", (dir / "bad.png").string()), host::ScriptError);
    EXPECT_FALSE(std::filesystem::exists(dir / "bad.png"));
    std::filesystem::remove_all(dir);
}

}  // namespace
