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

TEST_F(GroleTest, RoleChanges) {
    struct Row {
        const char *name;
        uint32_t before;
        PDev__DmRoleE role;
        bool applied;
        size_t fwd_deletes;
        const char *message;
    };
    const Row rows[] = {
        {"same role", 1, P_DEV__DM_ROLE_E__DM_ROLE_MASTER, true, 0, "global role is mot change"},
        {"master with a configuration", 2, P_DEV__DM_ROLE_E__DM_ROLE_MASTER, true, 1,
         "del dev_st and vsl_chipst"},
        {"master before any configuration", 0, P_DEV__DM_ROLE_E__DM_ROLE_MASTER, false, 0, ""},
        {"slave never deletes", 1, P_DEV__DM_ROLE_E__DM_ROLE_SLAVE, true, 0, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        g_my_grole = row.before;
        dpm_dev_head *gone = dpm_alloc_dev_head(2);
        gone->fwd_state = DPM_FWD_FORWARD;
        if (row.applied) {
            dpm_dtm_info *m = dpm_dtm_malloc_info(0, 0);
            dpm_add_dtm_info(m);
            dpm_set_hwcfg(m);
        }
        Grole g(row.role);
        EXPECT_EQ(dpm_add_grole(nullptr, nullptr, g.msg(), nullptr), 0);
        EXPECT_EQ(g_my_grole, static_cast<uint32_t>(row.role));
        EXPECT_EQ(last_timing(DPM_T_GROLE), static_cast<int32_t>(row.role));
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.kel_dev_fwdstate", platform::ModuleWrite::Del),
            row.fwd_deletes);
        if (*row.message != '\0') {
            EXPECT_TRUE(logged(row.message, "dpm_proc_grole_chg"));
        }
        // Only the cleanup resets a departed member's cached state.
        EXPECT_EQ(gone->fwd_state, row.fwd_deletes ? DPM_FWD_BLOCK : DPM_FWD_FORWARD);
        TearDown();
    }
}

TEST_F(GroleTest, DeletionsAndForeignRecordsChangeNothing) {
    g_my_grole = 2;
    Grole g(P_DEV__DM_ROLE_E__DM_ROLE_MASTER);
    Card c(2, 1, 0, false);
    EXPECT_EQ(dpm_del_grole(nullptr, nullptr, g.msg(), nullptr), 0);
    EXPECT_EQ(dpm_del_card_info(nullptr, nullptr, c.msg(), nullptr), 0);
    EXPECT_EQ(dpm_add_grole(nullptr, nullptr, c.msg(), nullptr), 0);
    EXPECT_TRUE(logged("grole record invalid, dropped"));
    EXPECT_EQ(dpm_add_grole(nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, g.msg(), nullptr), 0);
    EXPECT_TRUE(logged("card info record invalid, dropped"));
    EXPECT_EQ(g_my_grole, 2U);
}

TEST_F(GroleTest, CardCode) {
    struct Row {
        int32_t dev, slot, sslot;
        uint32_t code;
    };
    const Row rows[] = {
        {1, 1, 0, 0x001},
        {2, 1, 0, 0x021},
        {16, 31, 31, (31U << 10) | (15U << 5) | 31},
        {20, 3, 2, (2U << 10) | 3},  // device 20: no device bits
        {0, 3, 0, 3},
        {2, 33, 34, (2U << 10) | (1U << 5) | 1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.dev << "/" << row.slot << "/" << row.sslot);
        EXPECT_EQ(dpm_card_code(row.dev, row.slot, row.sslot), row.code);
        for (bool online : {true, false}) {
            Card c(row.dev, row.slot, row.sslot, online);
            EXPECT_EQ(dpm_add_card_info(nullptr, nullptr, c.msg(), nullptr), 0);
            EXPECT_EQ(last_timing(online ? DPM_T_ONLINE : DPM_T_NOT_ONLINE),
                      static_cast<int32_t>(row.code));
        }
    }
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
