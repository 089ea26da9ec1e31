// Module-id allocation: the cache and its index stay exact through adds,
// refusals, moves between devices and deletes by chip position; a device goes
// with its last module id; the incremental filter update after data sync; out
// of range records never reach the cache.
#include <set>
#include <vector>

#include "module_fixture.h"

namespace {

using namespace dpm_test;

// A line card's module id on chip `unit` of device/slot.
struct ModAlloc : FromText<SIntf__EvtModAlloc> {
    ModAlloc(int32_t devid, int32_t slot, int32_t modid, int32_t unit = 0, int32_t sslot = 0)
        : FromText(&s_intf__evt_mod_alloc__descriptor,
                   fmt("index { devid: %d slotid: %d sslotid: %d unit: %d } modid: %d node: 7 "
                       "unit: %d node_type: DM_TYPE_LC idnum_per_unit: 4",
                       devid, slot, sslot, unit, modid, unit)) {}
};

int add(ModAlloc &m) {
    return dpm_mod_alloc_cb(platform::host_handle(), Event::hmset(m.base()).get());
}
int del(ModAlloc &m) {
    return dpm_mod_alloc_cb(platform::host_handle(), Event::del(m.base()).get());
}

class ModidTest : public ModuleTest {
  protected:
    // Every count, bitmap and the index agree with the lists.
    static void expect_consistent() {
        std::set<uint32_t> all;
        uint32_t devs = 0;
        uint32_t dev_bits = 0;
        dpm_dev_head *dev = nullptr;
        dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
            ++devs;
            dev_bits |= 1U << dev->devid;
            dpm_modid_bmp bits{};
            uint32_t n = 0;
            dpm_modid_info *e = nullptr;
            dpm_list_for_each_entry(e, &dev->modid_list, link) {
                ++n;
                EXPECT_EQ(static_cast<uint32_t>(e->devid), dev->devid);
                EXPECT_TRUE(all.insert(e->modid).second) << "modid " << e->modid << " twice";
                dpm_bmp_set(bits, e->modid);
                EXPECT_EQ(dpm_modid_index[e->modid], e) << "index of " << e->modid;
            }
            EXPECT_EQ(dev->modid_cnt, n) << "dev " << dev->devid;
            EXPECT_EQ(dev->modid_bmp, bits) << "dev " << dev->devid;
        }
        EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, devs);
        EXPECT_EQ(dpm_modid_dev_cache.dev_bmp, dev_bits);
        EXPECT_EQ(dpm_modid_dev_cache.mod_cnt, all.size());
        for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
            bool in = all.count(m) != 0;
            EXPECT_EQ(dpm_bmp_test(dpm_modid_dev_cache.mod_bmp, m), in) << m;
            if (!in) {
                EXPECT_EQ(dpm_modid_index[m], nullptr) << m;
            }
        }
    }
};

// ---- add -------------------------------------------------------------------------

TEST_F(ModidTest, AddForAnotherDeviceMovesTheModuleId) {
    struct Row {
        const char *name;
        bool old_dev_keeps_another;
        uint32_t role;
        size_t fwd_deletes;
    };
    const Row rows[] = {
        {"old device emptied, slave", false, 2, 0},
        {"old device emptied, master", false, 1, 1},
        {"old device keeps a module id", true, 1, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        g_my_grole = row.role;
        ModAlloc first(2, 1, 100);
        ASSERT_EQ(add(first), 0);
        ModAlloc other(2, 2, 101);
        if (row.old_dev_keeps_another) {
            ASSERT_EQ(add(other), 0);
        }
        // The old placement on a port must not survive the move.
        dpm_vsl_info port{};
        port.modid_cnt = 1;
        dpm_bmp_set(port.modid_bmp, 100);
        dpm_find_modid_info(100)->uc_vsl = &port;
        dpm_find_modid_info(100)->is_used = 1;

        ModAlloc moved(3, 7, 100);
        EXPECT_EQ(add(moved), 0);
        dpm_modid_info *e = dpm_find_modid_info(100);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->devid, 3);
        EXPECT_EQ(e->slot, 7);
        EXPECT_EQ(e->uc_vsl, nullptr);
        EXPECT_EQ(port.modid_cnt, 0U);
        EXPECT_FALSE(dpm_bmp_test(port.modid_bmp, 100));
        EXPECT_EQ(dpm_find_dev_head(2) != nullptr, row.old_dev_keeps_another);
        EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Del), row.fwd_deletes);
        expect_consistent();
        TearDown();
    }
}

// ---- delete ------------------------------------------------------------------------

TEST_F(ModidTest, DeleteFindsTheEntryByChipPositionNotByModuleId) {
    ModAlloc a(2, 1, 100, 0);
    ModAlloc b(2, 1, 101, 1);
    ASSERT_EQ(add(a), 0);
    ASSERT_EQ(add(b), 0);
    ModAlloc other_sslot(2, 1, 101, 1, 1);  // the same unit of another subslot
    del(other_sslot);
    EXPECT_NE(dpm_find_modid_info(101), nullptr);
    ModAlloc by_pos(2, 1, 555, 1);  // unit 1 is module id 101
    EXPECT_EQ(del(by_pos), 0);
    EXPECT_EQ(dpm_find_modid_info(101), nullptr);
    EXPECT_NE(dpm_find_modid_info(100), nullptr);
    EXPECT_EQ(dpm_find_modid_info(555), nullptr);
    ModAlloc in_sslot(2, 1, 102, 1, 1);
    ASSERT_EQ(add(in_sslot), 0);
    ModAlloc by_sslot(2, 1, 556, 1, 1);
    EXPECT_EQ(del(by_sslot), 0);
    EXPECT_EQ(dpm_find_modid_info(102), nullptr);
    // Before data sync a main board's id leaves its port without changing
    // the port's load, which counts line cards only.
    ModAlloc board(2, 3, 103);
    ASSERT_EQ(add(board), 0);
    dpm_vsl_info port{};
    port.modid_cnt = 1;
    dpm_bmp_set(port.modid_bmp, 103);
    dpm_find_modid_info(103)->type = static_cast<int32_t>(DPM_NODE_MB);
    dpm_find_modid_info(103)->uc_vsl = &port;
    EXPECT_EQ(del(board), 0);
    EXPECT_EQ(port.modid_cnt, 1U);
    EXPECT_FALSE(dpm_bmp_test(port.modid_bmp, 103));
    expect_consistent();
}

TEST_F(ModidTest, LastModuleIdRemovesTheDeviceAndAsMasterItsStates) {
    for (uint32_t role : {1U, 2U}) {
        SCOPED_TRACE(role);
        SetUp();
        g_my_grole = role;
        ModAlloc a(2, 1, 100);
        ASSERT_EQ(add(a), 0);
        add_chip(2, 100, 0);

        EXPECT_EQ(del(a), 0);
        EXPECT_EQ(dpm_find_dev_head(2), nullptr);
        bool master = role == 1;
        EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Del), master ? 1U : 0U);
        EXPECT_EQ(count_writes("u_cluster.vsl_chip_fwdstate", Op::Del), master ? 1U : 0U);
        EXPECT_EQ(dpm_list_count(&dpm_vsl_chip_head), master ? 0U : 1U);
        expect_consistent();
        TearDown();
    }
}

// ---- after data sync: filters ------------------------------------------------------

TEST_F(ModidTest, FilterBitsFollowTheDeviceSetsOfEachAggregatePort) {
    make_ready();
    dpm_igr_permit[1].dev_bmp = 1U << 2;
    dpm_egr_block[2].dev_bmp = 1U << 2;
    ModAlloc m(2, 1, 300);
    ASSERT_EQ(add(m), 0);
    EXPECT_TRUE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 300));
    EXPECT_TRUE(dpm_bmp_test(dpm_egr_block[2].modid_bmp, 300));
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[2].modid_bmp, 300));
    EXPECT_FALSE(dpm_bmp_test(dpm_egr_block[1].modid_bmp, 300));

    clear_log();
    ASSERT_EQ(del(m), 0);
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 300));
    EXPECT_FALSE(dpm_bmp_test(dpm_egr_block[2].modid_bmp, 300));
    EXPECT_TRUE(logged("devid 2 is not in current igr filter, apid:2!"));
    EXPECT_TRUE(logged("devid 2 is not in current egr filter, apid:1!"));
    EXPECT_FALSE(logged("devid 2 is not in current igr filter, apid:1!"));

    // Moved to a device outside every filter, it leaves the old device's.
    ASSERT_EQ(add(m), 0);
    ModAlloc moved(3, 1, 300);
    ASSERT_EQ(add(moved), 0);
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 300));
    EXPECT_FALSE(dpm_bmp_test(dpm_egr_block[2].modid_bmp, 300));
}

// Found by the unit-wide check: an own chip added after the calculation (a
// card of the member taken out and put back) stayed out of the egress blocks
// for good. It joins the filters that hold the own device, and is not placed.
TEST_F(ModidTest, OwnModuleIdAfterTheCalculationJoinsTheEgressBlocks) {
    make_ready();
    dpm_egr_block[1].dev_bmp = dpm_egr_block[2].dev_bmp = 1U << g_mydevid;
    ModAlloc m(static_cast<int32_t>(g_mydevid), 2, 301);
    ASSERT_EQ(add(m), 0);
    EXPECT_TRUE(logged("my modid!"));
    EXPECT_TRUE(dpm_bmp_test(dpm_egr_block[1].modid_bmp, 301));
    EXPECT_TRUE(dpm_bmp_test(dpm_egr_block[2].modid_bmp, 301));
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 301));
    EXPECT_EQ(dpm_modid_index[301]->uc_vsl, nullptr);
    ASSERT_EQ(del(m), 0);
    EXPECT_FALSE(dpm_bmp_test(dpm_egr_block[1].modid_bmp, 301));
}

// ---- events and bad records ----------------------------------------------------------

TEST_F(ModidTest, OutOfRangeRecordsAreDroppedBeforeTouchingAnything) {
    struct Row {
        int32_t dev, modid;
    };
    for (const Row &row : {Row{32, 5}, Row{-1, 5}, Row{2, 2048}, Row{2, -1}, Row{40, 4000}}) {
        SCOPED_TRACE(::testing::Message() << row.dev << "/" << row.modid);
        clear_log();
        ModAlloc m(row.dev, 1, row.modid);
        EXPECT_EQ(add(m), DPM_ERR_FAIL);
        EXPECT_EQ(del(m), DPM_ERR_FAIL);
        std::string message = "mod alloc out of range, devid:" + std::to_string(row.dev) +
                              ", modid:" + std::to_string(row.modid) + ", dropped";
        EXPECT_EQ(log_count(message), 2);
        EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 1U);
        EXPECT_EQ(dpm_modid_dev_cache.mod_cnt, 0U);
        expect_consistent();
    }
    // A field-by-field entry in error, and an add refused (the id is already
    // the device's), are reported and change nothing.
    ModAlloc m(2, 1, 100);
    EXPECT_EQ(dpm_mod_alloc_cb(platform::host_handle(), Event::hmset(m.base(), 1).get()),
              DPM_ERR_FAIL);
    EXPECT_TRUE(logged("unexpected, error!"));
    EXPECT_EQ(dpm_modid_dev_cache.mod_cnt, 0U);
    ASSERT_EQ(add(m), 0);
    EXPECT_EQ(add(m), DPM_ERR_FAIL);
    EXPECT_TRUE(logged("dpm_proc_modid_add, modid:100, rv:-11"));
    // A data-sync request scans ASIC_DB; a failed scan is reported, whatever
    // its result code.
    for (int rv : {0, -1, 3}) {
        clear_log();
        if (rv != 0) platform::fail("xn_mom_scan", XN_MOM_ASIC_DB, 1, rv);
        EXPECT_EQ(dpm_mod_alloc_cb(platform::host_handle(), Event::ds_request().get()), 0);
        EXPECT_EQ(logged("scan modid info failed!"), rv != 0) << rv;
    }
}

}  // namespace
