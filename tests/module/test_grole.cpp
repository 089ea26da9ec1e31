// Role and card events: a new global master cleans up departed members once a
// configuration is applied; the end of an awaited main multicast removal when
// the card that would confirm it goes away.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

// A card record of device 2, slot `slot` (subslot `sslot`), online or not.
struct Card : FromText<PDev__CardInfo> {
    Card(int32_t slot, bool online, int32_t sslot = 0)
        : FromText(&p_dev__card_info__descriptor,
                   fmt("index { devid: 2 slotid: %d sslotid: %d } is_online: %d", slot, sslot,
                       online ? 1 : 0)) {}
};

class GroleTest : public ModuleTest {};

TEST_F(GroleTest, NewMasterCleansDepartedMembersOnlyOnceConfigured) {
    auto role = [](const char *r) {
        FromText<PDev__DpLibGrole> g(&p_dev__dp_lib_grole__descriptor, fmt("my_grole: %s", r));
        EXPECT_EQ(dpm_add_grole(nullptr, nullptr, g.base(), nullptr), 0);
    };
    add_mod(3, 300);  // a member the map below does not reach
    role("DM_ROLE_MASTER");
    EXPECT_TRUE(platform::module_writes().empty());
    role("DM_ROLE_MASTER");
    EXPECT_TRUE(logged("global role is mot change"));
    role("DM_ROLE_SLAVE");
    set_dtm({}, {{}});
    dpm_set_hwcfg(dpm_dtm_cache.newest);
    role("DM_ROLE_MASTER");
    EXPECT_TRUE(logged("del dev_st and vsl_chipst"));
    EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Del), 1U);
}

TEST_F(GroleTest, CardRemovalEndsOnlyTheWaitOnThatCard) {
    auto await = [](int apid, int32_t dev, int32_t slot, uint32_t modid) {
        dpm_mmc_info &m = dpm_mmc[apid];
        m.valid = 1;
        m.wait_del = 1;
        m.devid = dev;
        m.slotid = slot;
        m.sslotid = 0;
        m.modid = modid;
    };
    await(1, 2, 1, 7);
    await(2, 2, 3, 9);

    Card online(1, true);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, online.base(), nullptr), 0);
    EXPECT_EQ(dpm_mmc[1].wait_del, 1);
    EXPECT_TRUE(logged("card_online:[devid:2, slotid:1, sslotid:0]"));

    Card other(5, false);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, other.base(), nullptr), 0);
    EXPECT_TRUE(logged("card_remove:[devid:2, slotid:5, sslotid:0]"));
    Card subslot(1, false, 1);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, subslot.base(), nullptr), 0);
    EXPECT_EQ(dpm_mmc[1].wait_del, 1);
    EXPECT_EQ(dpm_mmc[2].wait_del, 1);
    EXPECT_TRUE(platform::module_writes().empty());

    clear_log();
    Card removed(1, false);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, removed.base(), nullptr), 0);
    EXPECT_TRUE(logged("mmc slot:2/1/0, removed slot:2/1/0"));
    EXPECT_TRUE(logged("mmc slot:2/3/0, removed slot:2/1/0"));
    EXPECT_EQ(dpm_mmc[1].wait_del, 0);
    EXPECT_EQ(dpm_mmc[1].valid, 0);  // no active port to choose again
    EXPECT_TRUE(logged("del mmc_back[apid:1 modid7]. rv is 0"));
    EXPECT_EQ(dpm_mmc[2].wait_del, 1);
    EXPECT_EQ(dpm_mmc[2].valid, 1);
    ASSERT_EQ(count_writes(kMmcBack, Op::Del), 1U);
}

}  // namespace
