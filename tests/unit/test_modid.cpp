// Module-id allocation: the cache and its index stay exact through adds,
// refusals, moves between devices and deletes by chip position; a device goes
// with its last module id; the incremental filter update after data sync; out
// of range records never reach the cache.
#include <set>
#include <vector>

#include "intake_fixture.h"

namespace {

using dpm_test::Event;
using intake_test::IntakeTest;

struct ModAlloc {
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc rec = S_INTF__EVT_MOD_ALLOC__INIT;
    ModAlloc(int32_t devid, int32_t slot, int32_t modid, int32_t unit = 0, int32_t sslot = 0,
             PDev__DmNodeTypeE type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC) {
        idx.devid = devid;
        idx.slotid = slot;
        idx.sslotid = sslot;
        idx.unit = unit;
        rec.index = &idx;
        rec.modid = modid;
        rec.node = 7;
        rec.unit = unit;
        rec.node_type = type;
        rec.idnum_per_unit = 4;
    }
    ModAlloc(const ModAlloc &) = delete;
    ProtobufCMessage *msg() { return &rec.base; }
};

int add(ModAlloc &m) {
    Event e = Event::hmset(m.msg());
    return dpm_mod_alloc_cb(platform::host_handle(), e.get());
}
int del(ModAlloc &m) {
    Event e = Event::del(m.msg());
    return dpm_mod_alloc_cb(platform::host_handle(), e.get());
}

class ModidTest : public IntakeTest {
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

TEST_F(ModidTest, AddCreatesTheDeviceAndFillsTheEntry) {
    ModAlloc m(2, 3, 100, 1, 4, P_DEV__DM_NODE_TYPE_E__DM_TYPE_MB);
    EXPECT_EQ(add(m), 0);
    dpm_dev_head *dev = dpm_find_dev_head(2);
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->is_dtm_used, 0);  // only the own device starts used
    dpm_modid_info *e = dpm_find_modid_info(100);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->devid, 2);
    EXPECT_EQ(e->slot, 3);
    EXPECT_EQ(e->sslot, 4);
    EXPECT_EQ(e->unit, 1);
    EXPECT_EQ(e->type, 2);
    EXPECT_EQ(e->node, 7);
    EXPECT_EQ(e->idnum_per_unit, 4U);
    EXPECT_EQ(e->is_used, 0);
    EXPECT_EQ(e->uc_vsl, nullptr);
    expect_consistent();
    EXPECT_TRUE(logged("ds not end!", "dpm_proc_modid_add"));
}

TEST_F(ModidTest, ReAddOnTheSameDeviceIsRefusedAndChangesNothing) {
    ModAlloc m(2, 3, 100);
    ASSERT_EQ(add(m), 0);
    ModAlloc again(2, 5, 100);
    clear_log();
    EXPECT_EQ(add(again), DPM_ERR_FAIL);
    EXPECT_TRUE(logged("modid 100 exist, devid:2, slot:3, unit:0!"));
    EXPECT_TRUE(logged("add modid info failed! modid:100"));
    EXPECT_TRUE(logged("dpm_proc_modid_add, modid:100, rv:-11", "dpm_mod_alloc_cb"));
    EXPECT_EQ(dpm_find_modid_info(100)->slot, 3);
    EXPECT_EQ(dpm_find_dev_head(2)->modid_cnt, 1U);
    expect_consistent();
}

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
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.kel_dev_fwdstate", platform::ModuleWrite::Del),
            row.fwd_deletes);
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
    ModAlloc by_pos(2, 1, 555, 1);  // unit 1 is module id 101
    EXPECT_EQ(del(by_pos), 0);
    EXPECT_EQ(dpm_find_modid_info(101), nullptr);
    EXPECT_NE(dpm_find_modid_info(100), nullptr);
    EXPECT_EQ(dpm_find_modid_info(555), nullptr);
    expect_consistent();
}

TEST_F(ModidTest, DeleteOfUnknownPositionFails) {
    ModAlloc a(2, 1, 100);
    ASSERT_EQ(add(a), 0);
    struct Row {
        int32_t dev, slot;
        const char *first_message;
    };
    for (const Row &row : {Row{2, 9, "not find modid info devid:2, slot:9, unit:0"},
                           Row{5, 1, "can;t find dev 5 head"}}) {
        SCOPED_TRACE(row.first_message);
        clear_log();
        ModAlloc m(row.dev, row.slot, 100);
        EXPECT_EQ(del(m), DPM_ERR_FAIL);
        EXPECT_TRUE(logged(row.first_message));
        EXPECT_TRUE(logged("del modid info failed! modid:100"));
        EXPECT_TRUE(logged("dpm_proc_modid_del, modid:100, rv:-11", "dpm_mod_alloc_cb"));
        EXPECT_NE(dpm_find_modid_info(100), nullptr);
        expect_consistent();
    }
}

TEST_F(ModidTest, LastModuleIdRemovesTheDeviceAndAsMasterItsStates) {
    for (uint32_t role : {1U, 2U}) {
        SCOPED_TRACE(role);
        SetUp();
        g_my_grole = role;
        ModAlloc a(2, 1, 100);
        ASSERT_EQ(add(a), 0);
        auto *chip = dpm_zalloc<dpm_vsl_chip>();
        chip->devid = 2;
        chip->modid = 100;
        dpm_list_add_tail(&chip->link, &dpm_vsl_chip_head);

        EXPECT_EQ(del(a), 0);
        EXPECT_EQ(dpm_find_dev_head(2), nullptr);
        bool master = role == 1;
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.kel_dev_fwdstate", platform::ModuleWrite::Del),
            master ? 1U : 0U);
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.vsl_chip_fwdstate", platform::ModuleWrite::Del),
            master ? 1U : 0U);
        EXPECT_EQ(intake_test::list_len(&dpm_vsl_chip_head), master ? 0U : 1U);
        expect_consistent();
        TearDown();
    }
}

TEST_F(ModidTest, OwnDeviceGoesWithItsLastModuleIdToo) {
    ModAlloc mine(1, 1, 10);
    ASSERT_EQ(add(mine), 0);
    EXPECT_EQ(del(mine), 0);
    EXPECT_EQ(dpm_find_dev_head(1), nullptr);
    expect_consistent();
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
}

TEST_F(ModidTest, NoFilterChangeForOwnModuleIdsOrBeforeReadiness) {
    struct Row {
        const char *name;
        bool ready;
        int32_t dev;
        const char *message;
    };
    const Row rows[] = {{"own chip", true, 1, "my modid!"}, {"sync open", false, 2, "ds not end!"}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        if (row.ready) make_ready();
        dpm_igr_permit[1].dev_bmp = 0x6;  // devices 1 and 2
        ModAlloc m(row.dev, 1, 40);
        EXPECT_EQ(add(m), 0);
        EXPECT_TRUE(logged(row.message, "dpm_proc_modid_add"));
        EXPECT_TRUE(dpm_bmp_empty(dpm_igr_permit[1].modid_bmp));
        EXPECT_NE(dpm_find_modid_info(40), nullptr);
        TearDown();
    }
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
}

TEST_F(ModidTest, EventFrame) {
    ModAlloc m(2, 1, 100);
    struct Row {
        const char *name;
        Event ev;
        bool null_event;
        int rv;
        const char *message;
    };
    std::vector<Row> rows = {
        {"no event", Event{}, true, DPM_ERR_EVENT, "msg is NULL!"},
        {"event error", Event::error(3), false, DPM_ERR_EVENT, "msg error is 3!"},
        {"entry status", Event::hmset(m.msg(), 1), false, DPM_ERR_FAIL, "unexpected, error!"},
        {"entry missing", Event{}, false, DPM_ERR_FAIL, "unexpected, error!"},
        {"whole-form set ignored", Event::set(m.msg()), false, 0, ""},
    };
    rows[3].ev.msg.cmd = XN_MOM_CMD_HMSET;
    for (auto &row : rows) {
        SCOPED_TRACE(row.name);
        clear_log();
        EXPECT_EQ(
            dpm_mod_alloc_cb(platform::host_handle(), row.null_event ? nullptr : row.ev.get()),
            row.rv);
        if (*row.message != '\0') {
            EXPECT_TRUE(logged(row.message, "dpm_mod_alloc_cb"));
        }
        EXPECT_EQ(dpm_find_modid_info(100), nullptr);
    }
}

TEST_F(ModidTest, DataSyncScanTakesEntryFormRecordsAndEndsTheSync) {
    ModAlloc field(2, 1, 100);
    ModAlloc whole(2, 2, 101);
    ASSERT_EQ(
        platform::db_hmset(XN_MOM_ASIC_DB, "s_intf.evt_mod_alloc", dpm_test::pack(field.msg())), 0);
    ASSERT_EQ(platform::db_set(XN_MOM_ASIC_DB, "s_intf.evt_mod_alloc", dpm_test::pack(whole.msg())),
              0);
    Event e = Event::ds_request();
    EXPECT_EQ(dpm_mod_alloc_cb(platform::host_handle(), e.get()), 0);
    platform::run_until_idle();
    EXPECT_NE(dpm_find_modid_info(100), nullptr);
    EXPECT_EQ(dpm_find_modid_info(101), nullptr);  // command 1 is not an allocation
    EXPECT_EQ(dpm_modid_dev_cache.ds_end, 1);
    expect_consistent();

    platform::fail("xn_mom_scan", XN_MOM_ASIC_DB);
    clear_log();
    Event again = Event::ds_request();
    EXPECT_EQ(dpm_mod_alloc_cb(platform::host_handle(), again.get()), 0);
    EXPECT_TRUE(logged("scan modid info failed!", "dpm_mod_alloc_ds"));
}

TEST_F(ModidTest, SetModidInfoUnused) {
    ModAlloc m(2, 1, 100);
    ASSERT_EQ(add(m), 0);
    dpm_vsl_info port{};
    dpm_modid_info *e = dpm_find_modid_info(100);
    e->is_used = 1;
    e->uc_vsl = &port;
    EXPECT_EQ(dpm_set_modid_info_unused(100), 0);
    EXPECT_EQ(e->is_used, 0);
    EXPECT_EQ(e->uc_vsl, nullptr);
    EXPECT_EQ(dpm_set_modid_info_unused(101), DPM_ERR_NOMODID);
    EXPECT_TRUE(logged("can't find modid 101 info!"));
}

}  // namespace
