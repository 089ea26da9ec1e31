// Global role and card events: role changes and who cleans up, the card code
// recorded in the timing ring, and the end of an awaited main multicast
// removal when the card that would confirm it goes away.
#include <vector>

#include "intake_fixture.h"

namespace {

using intake_test::IntakeTest;

struct Grole {
    PDev__DpLibGrole rec = P_DEV__DP_LIB_GROLE__INIT;
    explicit Grole(PDev__DmRoleE role) { rec.my_grole = role; }
    const ProtobufCMessage *msg() const { return &rec.base; }
};

struct Card {
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo rec = P_DEV__CARD_INFO__INIT;
    Card(int32_t dev, int32_t slot, int32_t sslot, bool online) {
        idx.devid = dev;
        idx.slotid = slot;
        idx.sslotid = sslot;
        rec.index = &idx;
        rec.is_online = online ? 1 : 0;
    }
    const ProtobufCMessage *msg() const { return &rec.base; }
};

class GroleTest : public IntakeTest {
  protected:
    // The value of the latest entry recorded for an event, or -1.
    static int32_t last_timing(int32_t event) {
        const udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
        if (t.size == 0 || t.entries == nullptr) return -1;
        for (uint32_t back = 0; back < t.size; ++back) {
            const dpm_time_entry &e = t.entries[(t.cur_idx + t.size - back) % t.size];
            if (e.cnt == 0) break;
            if (e.event == event) return e.data;
        }
        return -1;
    }
    void SetUp() override {
        IntakeTest::SetUp();
        // A small ring so that the card code can be read back.
        if (udp_dpm_dbg_time.entries == nullptr) {
            static dpm_time_entry ring[8];
            udp_dpm_dbg_time.entries = ring;
            udp_dpm_dbg_time.size = 8;
            udp_dpm_dbg_time.per_cnt = 1;
            udp_dpm_dbg_time.names = udp_dpm_dbg_time_str;
        }
    }
};

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

    Card online(2, 1, 0, true);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, online.msg(), nullptr), 0);
    EXPECT_EQ(dpm_mmc[1].wait_del, 1);
    EXPECT_TRUE(logged("card_online:[devid:2, slotid:1, sslotid:0]"));

    Card other(2, 5, 0, false);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, other.msg(), nullptr), 0);
    EXPECT_TRUE(logged("card_remove:[devid:2, slotid:5, sslotid:0]"));
    EXPECT_EQ(dpm_mmc[1].wait_del, 1);
    EXPECT_EQ(dpm_mmc[2].wait_del, 1);
    EXPECT_TRUE(platform::module_writes().empty());

    clear_log();
    Card removed(2, 1, 0, false);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, removed.msg(), nullptr), 0);
    EXPECT_TRUE(logged("mmc slot:2/1/0, removed slot:2/1/0"));
    EXPECT_TRUE(logged("mmc slot:2/3/0, removed slot:2/1/0"));
    EXPECT_EQ(dpm_mmc[1].wait_del, 0);
    EXPECT_EQ(dpm_mmc[1].valid, 0);  // no active port to choose again
    EXPECT_TRUE(logged("del mmc_back[apid:1 modid7]. rv is 0"));
    EXPECT_EQ(dpm_mmc[2].wait_del, 1);
    EXPECT_EQ(dpm_mmc[2].valid, 1);
    ASSERT_EQ(intake_test::count_writes("u_cluster.mainmc_vlan_st", platform::ModuleWrite::Del),
              1U);
}

}  // namespace
