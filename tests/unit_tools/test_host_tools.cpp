// What dpm-unit relies on in the host: the responder reconciles on start,
// and a record written in the form its reader does not take is refused.
#include <gtest/gtest.h>

#include "host.h"
#include "platform_ctl.h"

namespace {

class HostTools : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset(); }
    void run(const std::string &line) { h_.execute(line, "test"); }
    host::Host h_{host::Options{}};
};

TEST_F(HostTools, ResponderConfirmsWhatLacksItAndWithdrawsWhatAnswersNothing) {
    run("db set TOPO_DB u_cluster.mainmc_vlan { index { t_cfg_modid: 5 apid: 1 } vlan: [1, 2] }");
    run("db set TOPO_DB u_cluster.mainmc_vlan { index { t_cfg_modid: 6 apid: 2 } vlan: [3] }");
    run("db set TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 6 apid: 2 } vlan: [3] }");
    run("db set TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 7 apid: 1 } vlan: [4] }");
    run("respond 1");
    run("expect output \"2 request(s), 2 confirmation(s) stored; 1 confirmed, 1 withdrawn\"");
    run("expect record TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 5 apid: 1 } "
        "vlan: [1, 2] }");
    run("expect record TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 6 apid: 2 } "
        "vlan: [3] }");
    run("expect count TOPO_DB u_cluster.mainmc_vlan_st 2");
    // From then on it follows the requests.
    run("db del TOPO_DB u_cluster.mainmc_vlan { index { t_cfg_modid: 5 apid: 1 } }");
    run("expect absent TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 5 apid: 1 } }");
}

TEST_F(HostTools, DbWritesInTheFormTheReaderDoesNotTakeAreRefused) {
    struct Row {
        std::string line, message;
    };
    const Row rows[] = {
        {"db set LOCAL_DB p_dev.vsl_local_link { index { devid: 1 lport: 1 } status: 1 }",
         "p_dev.vsl_local_link is stored field by field (the module reads it only in that "
         "form): write it with db hmset"},
        {"db set ASIC_DB s_intf.evt_mod_alloc { index { devid: 2 } modid: 3 }",
         "s_intf.evt_mod_alloc is stored field by field"},
        {"db hmset LOCAL_DB p_dev.dtm_route_info { local_id: 1 }",
         "p_dev.dtm_route_info is stored whole (the module reads it only in that form): write "
         "it with db set"},
        {"db hmset UDP_DB u_cluster.vsl_chip_fwdstate { index { t_devid: 1 } }",
         "u_cluster.vsl_chip_fwdstate is stored whole"},
        {"db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 lport: 1 } status: 1 }", ""},
        {"db set UDP_DB u_cluster.kel_dev_fwdstate { index { devid: 2 } fwd_state: \"forward\" }",
         ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.line);
        try {
            run(row.line);
            EXPECT_EQ(row.message, "") << "accepted";
        } catch (const host::ScriptError &e) {
            EXPECT_NE(row.message, "");
            EXPECT_EQ(std::string(e.what()).rfind(row.message, 0), 0U) << e.what();
        }
    }
    EXPECT_EQ(platform::db_records(3, "p_dev.vsl_local_link").size(), 1U);
    EXPECT_TRUE(platform::db_records(0).empty());
}

}  // namespace
