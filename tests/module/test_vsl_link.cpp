// VSL link events and readiness: the waiting and active caches, module events
// of both ends in any order, chip lookups and their limits, the readiness gate
// with its first-port exception, relearning of chip ids, and records that the
// caches cannot hold.
#include <optional>

#include "module_fixture.h"

namespace {

using namespace dpm_test;

// Port `lport` of device 1 slot 1 facing port `peer_lport` (the same one by
// default) of device 2 slot 1.
struct Link : FromText<PDev__VslLocalLink> {
    Link(int32_t lport, int32_t status, int32_t apid = 1, int32_t peer_lport = -1)
        : FromText(&p_dev__vsl_local_link__descriptor,
                   fmt("index { devid: 1 slotid: 1 lport: %d } status: %d vsl_ap: %d "
                       "peer_dev_id: 2 peer_slot_id: 1 peer_lport: %d",
                       lport, status, apid, peer_lport < 0 ? lport : peer_lport)) {}
};

int feed(Link &l) {
    return dpm_local_vsl_cb(platform::host_handle(), Event::hmset(l.base()).get());
}

uint32_t gslot(uint32_t dev, uint32_t sslot = 0) {
    return dpm_gslot_make(dev, 1, sslot);
}
void card(uint32_t dev, int op = LIBDDM_OP_ADD, uint32_t sslot = 0) {
    uint32_t g = gslot(dev, sslot);
    udp_dpm_libddm_notify_cb(nullptr, LIBDDM_NOTIFY_MODULE, op, &g);
}

void chip_forward(uint32_t dev, uint32_t modid) {
    add_chip(dev, modid);
}

dpm_vsl_info *active(int lport, int apid = 1) {
    dpm_vsl_port p{1, 1, 0, lport};
    return dpm_get_vsl_info(&dpm_vslap_cache, &p, apid);
}
dpm_vsl_info *waiting(int lport, int apid = 1) {
    dpm_vsl_port p{1, 1, 0, lport};
    return dpm_get_vsl_info(&dpm_vslap_unused_cache, &p, apid);
}

class VslLinkTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        // Ports 1..3 of device 1 face the same ports of device 2; chips 10 and 20.
        for (int lport = 1; lport <= 3; ++lport) {
            platform::set_chipid(1, 1, lport, 10);
            platform::set_chipid(2, 1, lport, 20);
            platform::set_phyid(1, 1, lport, 100 + static_cast<uint32_t>(lport));
        }
    }
};

// ---- readiness gate --------------------------------------------------------------------

TEST_F(VslLinkTest, PortWaitsForBothModuleEventsFarEndLast) {
    make_ready();
    Link l(1, 1);
    ASSERT_EQ(feed(l), 0);
    EXPECT_TRUE(logged("two end chip don't has mod event for lvsl"));
    ASSERT_NE(waiting(1), nullptr);
    EXPECT_EQ(waiting(1)->chipid, 0U);

    card(1);
    EXPECT_EQ(log_count("two end chip don't has mod event for lvsl"), 2);
    EXPECT_NE(waiting(1), nullptr);
    EXPECT_EQ(active(1), nullptr);

    card(2);  // the far end completes it: first port, no chip needed
    EXPECT_TRUE(logged("apid:1, enable first lvsl", "dpm_proc_lvsl_up_by_mod_event"));
    EXPECT_EQ(waiting(1), nullptr);
    ASSERT_NE(active(1), nullptr);
    EXPECT_EQ(active(1)->chipid, 10U);
    EXPECT_EQ(active(1)->peer_chip, 20U);
    EXPECT_EQ(active(1)->gphyid, 101U);
    EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 1U);
    EXPECT_EQ(dpm_vslap_unused_cache.ap[1].vsl_cnt, 0U);

    // A later card event whose chip lookup fails (any non-zero result) takes
    // the port down and tries it again: its main multicast goes and comes back.
    platform::fail("libddm_get_chipid_by_dev_slot_lport", -1, 1, 5);
    platform::clear_module_writes();
    card(1);
    EXPECT_TRUE(logged("the chipid  of lvsl is wrong"));
    const auto mmc = writes(kMmc);
    ASSERT_EQ(mmc.size(), 2U);
    EXPECT_EQ(mmc[0].op, Op::Del);
    EXPECT_EQ(mmc[1].op, Op::Set);
}

TEST_F(VslLinkTest, SecondPortNeedsBothChipsInTheList) {
    make_ready();
    card(1);
    card(2);
    Link first(1, 1);
    Link second(2, 1);
    ASSERT_EQ(feed(first), 0);
    ASSERT_NE(active(1), nullptr);
    ASSERT_EQ(feed(second), 0);
    EXPECT_TRUE(logged("two end chip is not ready for lvsl"));
    ASSERT_NE(waiting(2), nullptr);

    chip_forward(1, 10);  // one end is not enough
    dpm_proc_rdy_chip_in_unused(false);
    EXPECT_TRUE(logged("check ready", "dpm_proc_rdy_chip_in_unused"));
    EXPECT_NE(waiting(2), nullptr);
    EXPECT_TRUE(
        logged("not ready. devid\xA3\xBA"
               "1, slot:1, sslot:0, lport:2",
               "dpm_proc_rdy_chip_in_unused"));

    // The far chip reports forward: the chip handler moves the port.
    FromText<UCluster__VslChipFwdstate> st(&u_cluster__vsl_chip_fwdstate__descriptor,
                                           "index { t_devid: 2 slot: 1 } fwd_state: \"forward\" "
                                           "modid: 20");
    ASSERT_EQ(dpm_vsl_chipst_cb(platform::host_handle(), Event::set(st.base()).get()), 0);
    EXPECT_EQ(waiting(2), nullptr);
    EXPECT_NE(active(2), nullptr);
    EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 2U);
    EXPECT_TRUE(logged("del lvsl from unused cache"));
}

// A port is known by device, slot, sub-slot and port, and only a module event
// of its own card counts for it; a record without its key is dropped.
TEST_F(VslLinkTest, PortsAndCardsOfOtherSubSlots) {
    make_ready();
    for (uint32_t g : {dpm_gslot_make(1, 2, 0), gslot(2)}) {
        udp_dpm_libddm_notify_cb(nullptr, LIBDDM_NOTIFY_MODULE, LIBDDM_OP_ADD, &g);
    }
    Link l(1, 1);
    ASSERT_EQ(feed(l), 0);
    EXPECT_NE(waiting(1), nullptr);
    card(1);
    ASSERT_NE(active(1), nullptr);

    // Sub-slot 1 of the same slot has no module event: its port waits, and
    // the same port of sub-slot 0 coming up leaves it waiting.
    FromText<PDev__VslLocalLink> other(&p_dev__vsl_local_link__descriptor,
                                       "index { devid: 1 slotid: 1 subslot: 1 lport: 2 } "
                                       "status: 1 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 "
                                       "peer_lport: 2");
    ASSERT_EQ(dpm_local_vsl_cb(platform::host_handle(), Event::hmset(other.base()).get()), 0);
    chip_forward(1, 10);
    chip_forward(2, 20);
    Link same(2, 1);
    ASSERT_EQ(feed(same), 0);
    ASSERT_NE(active(2), nullptr);
    dpm_vsl_port p{1, 1, 1, 2};
    EXPECT_NE(dpm_get_vsl_info(&dpm_vslap_unused_cache, &p, 1), nullptr);

    PDev__VslLocalLink no_index = P_DEV__VSL_LOCAL_LINK__INIT;
    EXPECT_EQ(dpm_local_vsl_cb(platform::host_handle(), Event::hmset(&no_index.base).get()),
              DPM_ERR_FAIL);
    EXPECT_TRUE(logged("local vsl record invalid, dropped"));
}

// A port whose far end sits in sub-slot 1 follows that card: the main
// multicast leaves it with the card and comes back with it, far end intact.
TEST_F(VslLinkTest, FarEndInASubSlotLeavesAndReturnsWithItsCard) {
    make_ready();
    card(1);
    card(2, LIBDDM_OP_ADD, 1);
    FromText<PDev__VslLocalLink> l(&p_dev__vsl_local_link__descriptor,
                                   "index { devid: 1 slotid: 1 lport: 1 } status: 1 vsl_ap: 1 "
                                   "peer_dev_id: 2 peer_slot_id: 1 peer_sslot_id: 1 peer_lport: 1");
    ASSERT_EQ(dpm_local_vsl_cb(platform::host_handle(), Event::hmset(l.base()).get()), 0);
    card(2, LIBDDM_OP_DEL, 1);
    card(2, LIBDDM_OP_ADD, 1);
    const auto mmc = writes(kMmc);
    ASSERT_EQ(mmc.size(), 3U);
    EXPECT_EQ(mmc[1].op, Op::Del);
    for (size_t i : {0U, 2U}) {
        Unpacked<UCluster__MainmcVlan> rec(&u_cluster__mainmc_vlan__descriptor, mmc[i].packed);
        EXPECT_EQ(mmc[i].op, Op::Set);
        EXPECT_EQ(rec->peer_vsl->sslot, 1U) << i;
    }
}

TEST_F(VslLinkTest, UpRecordForAnActivePortUpdatesItInPlace) {
    make_ready();
    card(1);
    card(2);
    chip_forward(1, 10);
    chip_forward(2, 20);
    Link l(1, 1);
    ASSERT_EQ(feed(l), 0);
    dpm_vsl_info *act = active(1);
    ASSERT_NE(act, nullptr);

    platform::set_chipid(2, 1, 3, 20);
    Link moved(1, 1, 1, 3);  // the far end is now port 3
    ASSERT_EQ(feed(moved), 0);
    EXPECT_EQ(active(1), act);
    EXPECT_EQ(act->peer_lport, 3);
    EXPECT_EQ(act->peer_chip, 20U);
    EXPECT_EQ(waiting(1), nullptr);
    EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 1U);
    EXPECT_EQ(dpm_vslap_unused_cache.ap[1].vsl_cnt, 0U);
}

TEST_F(VslLinkTest, ChipLookupLimits) {
    struct Row {
        const char *name;
        std::optional<uint32_t> local, peer, phy;
        bool activated;
        const char *message;
    };
    const Row rows[] = {
        {"local chip 2048", 2048, 20, 101, false, "the modid of vsl is 2048. out of range!"},
        {"peer chip 4095", 10, 4095, 101, false, "the modid of vsl is 4095. out of range!"},
        {"peer lookup fails", 10, std::nullopt, 101, false,
         "get chipid by dev[2] slot[1] lport[1 ]fail"},
        {"chip 2047 is the highest", 2047, 20, 101, true, ""},
        {"physical id fails", 10, 20, std::nullopt, true,
         "get gphyid by dev[1] slot[1] lport[1] fail"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        make_ready();
        card(1);
        card(2);
        platform::set_chipid(1, 1, 1, row.local);
        platform::set_chipid(2, 1, 1, row.peer);
        platform::set_phyid(1, 1, 1, row.phy);
        clear_log();
        Link l(1, 1);
        EXPECT_EQ(feed(l), 0);
        EXPECT_EQ(active(1) != nullptr, row.activated);
        if (row.activated) {
            ASSERT_NE(active(1), nullptr);
            EXPECT_EQ(active(1)->gphyid, row.phy.value_or(0));
            EXPECT_EQ(active(1)->chipid, *row.local);
        } else {
            ASSERT_NE(waiting(1), nullptr);
            EXPECT_EQ(waiting(1)->chipid, 0U);
            EXPECT_EQ(waiting(1)->peer_chip, 0U);
            EXPECT_TRUE(logged("get gphyid and chipid by vsl fail"));
        }
        if (*row.message != '\0') {
            EXPECT_TRUE(logged(row.message));
        }
        TearDown();
    }
}

// ---- down records, store-only moves, bad records ------------------------------------

// A port re-cabled into the other aggregate port leaves the first one; a
// change of configuration is reported as a notice, not as an error.
TEST_F(VslLinkTest, PortMovedToTheOtherAggregatePortLeavesTheFirst) {
    make_ready();
    card(1);
    card(2);
    Link first(1, 1, 1);
    ASSERT_EQ(feed(first), 0);
    ASSERT_NE(active(1, 1), nullptr);
    Link moved(1, 1, 2);
    ASSERT_EQ(feed(moved), 0);
    EXPECT_EQ(active(1, 1), nullptr);
    EXPECT_NE(active(1, 2), nullptr);
    EXPECT_TRUE(has_log(log(), "dpm_proc_lvsl_up",
                        "vsl port moves from apid 1 to apid 2. dev:1, slot:1, sslot:0, lport:1",
                        XN_ZLOG_NOTICE));
}

TEST_F(VslLinkTest, ReadinessTests) {
    chip_forward(1, 10);
    chip_forward(2, 30);
    struct Row {
        uint32_t chip, peer;
        bool ready;
    };
    for (const Row &row :
         {Row{10, 30, true}, Row{10, 20, false}, Row{20, 30, false}, Row{0, 0, false}}) {
        dpm_vsl_info e{};
        e.chipid = row.chip;
        e.peer_chip = row.peer;
        bool ready = true;
        dpm_both_end_is_ready(&e, &ready);
        EXPECT_EQ(ready, row.ready) << row.chip << "/" << row.peer;
    }
    bool one = false;
    dpm_one_end_is_ready(99, &one);
    EXPECT_FALSE(one);
    one = true;
    dpm_one_end_is_ready(99, &one);  // left as the caller set it
    EXPECT_TRUE(one);
    EXPECT_EQ(dpm_get_vslmodid_by_vslinfo(77), 77);
    // A failed lookup is a mismatch, even for a port without chip ids.
    dpm_vsl_info zero = make_vsl(1, 1, 0, 0);
    platform::fail("libddm_get_chipid_by_dev_slot_lport");
    EXPECT_EQ(dpm_check_vsl_chipid(&zero), -1);
}

}  // namespace
