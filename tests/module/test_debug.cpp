// Debug commands: registration, dumps compared byte for byte with golden
// files, and the three record injections.
#include "module_fixture.h"
#include "p_dev.pb.h"
#include "s_intf.pb.h"

namespace {

using namespace dpm_test;

class Debug : public ModuleTest {
  protected:
    Debug() : ModuleTest(1, false, true) {}

    static dpm_vsl_info *vsl(dpm_vslap_cache_t &c, int apid, int dev, int slot, int lport) {
        auto *v = dpm_zalloc<dpm_vsl_info>();
        v->devid = dev;
        v->slot = slot;
        v->lport = lport;
        v->apid = apid;
        v->chipid = 10 + lport;
        v->gphyid = 0x1a0 + static_cast<uint32_t>(lport);
        v->peer_dev = dev + 1;
        v->peer_slot = slot;
        v->peer_lport = lport + 100;
        v->peer_chip = 40;
        v->modid_cnt = 2;
        dpm_bmp_set(v->modid_bmp, 3);
        dpm_bmp_set(v->modid_bmp, 4);
        dpm_list_add_tail(&v->link, &c.ap[apid].vsl_list);
        c.ap[apid].vsl_cnt++;
        return v;
    }
};

TEST_F(Debug, ApidIsRefusedOutside1To2) {
    const std::string refusal = golden("apid_refusal.txt");
    for (const char *c : {"dump_igr", "dump_egr", "dump_mmc", "dump_mmc_back"}) {
        for (int apid : {0, 3, -1}) EXPECT_EQ(run_cmd(c, {apid}), refusal) << c << " " << apid;
    }
}

TEST_F(Debug, VslCachesMarkLoads) {
    dpm_vsl_info *a = vsl(dpm_vslap_cache, 1, 1, 2, 3);
    vsl(dpm_vslap_cache, 1, 1, 2, 4);
    dpm_vsl_info *c = vsl(dpm_vslap_cache, 1, 1, 2, 5);
    // A port number that does not fit the 9-character column is cut.
    vsl(dpm_vslap_cache, 2, 12, 12, 123456);
    dpm_vslap_cache.ap[1].max_uc_modid_vsl = a;
    dpm_vslap_cache.ap[1].min_uc_modid_vsl = c;
    dpm_vslap_cache.ds_end = 1;
    EXPECT_EQ(run_cmd("dump_vsl_cache"), golden("dump_vsl_cache.txt"));

    vsl(dpm_vslap_unused_cache, 2, 3, 1, 7);
    EXPECT_EQ(run_cmd("dump_vsl_unused_cache"), golden("dump_vsl_unused_cache.txt"));
}

TEST_F(Debug, RouteMapDumpsRunWithLoggingOff) {
    for (int i = 0; i < 2; ++i) {
        dpm_dtm_info *info = dpm_dtm_malloc_info(2, 1);
        ASSERT_NE(info, nullptr);
        info->local_id = static_cast<uint8_t>(1 + i);
        info->shape = 1;
        info->valid = 1;
        info->fibs[0] = {1, 2, 3};
        info->fibs[1] = {1, 3, 4};
        // The multicast entries follow the unicast ones in the same block.
        info->mfib_num = 1;
        info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs + 2);
        // Three out-interfaces show the first two; one shows one.
        info->mfibs[0] = {1, 1, 0, static_cast<uint8_t>(i == 0 ? 3 : 1), {5, 6}};
        dpm_add_dtm_info(info);
    }
    dpm_dtm_cache.ds_end = 1;
    void *cat = g_udp_dpm_zlog_category;
    EXPECT_EQ(run_cmd("dump_dtm_cache"), golden("dump_dtm_cache.txt"));
    EXPECT_EQ(run_cmd("dump_dtm_history"), golden("dump_dtm_history.txt"));
    EXPECT_EQ(g_udp_dpm_zlog_category, cat);  // restored
}

class DebugDtm : public Debug {
  protected:
    void SetUp() override {
        Debug::SetUp();
        // The first line is longer than a line is read: its rest is skipped.
        root_file("etc/pktdbg/fib", "owner:1,dst:2,oif:1" + std::string(300, ' ') +
                                        "\nowner:1,dst:3,oif:2\nowner:9,dst:9,oif:9\n"
                                        "owner:8,dst:8,oif:8\nowner:7,dst:7,oif:7\n");
        root_file("etc/pktdbg/mfib", "iif:1,oif1:2,oif2:3,own:1,src:4\n");
    }
    void TearDown() override {
        root_file("etc/pktdbg/fib", "");
        root_file("etc/pktdbg/mfib", "");
        Debug::TearDown();
    }
};

TEST_F(DebugDtm, CountsAreWrittenAsGivenRoutesAtMost16) {
    struct row {
        int fib_num, mfib_num;
        size_t fibs, mfibs;
    };
    const row rows[] = {{40, 17, 16, 16}, {-3, 0, 0, 0}, {5, 1, 5, 1}};
    for (const row &r : rows) {
        EXPECT_EQ(run_cmd("dbg_dtm", {3, 2, r.fib_num, r.mfib_num}), "set dtm rv is 0\n");
        auto recs = platform::db_records(3, "p_dev.dtm_route_info");
        ASSERT_EQ(recs.size(), 1U);
        p_dev::dtm_route_info m;
        ASSERT_TRUE(m.ParseFromString(recs[0].packed));
        EXPECT_EQ(static_cast<size_t>(m.fibs_size()), r.fibs) << r.fib_num;
        EXPECT_EQ(static_cast<size_t>(m.mfibs_size()), r.mfibs) << r.mfib_num;
        EXPECT_EQ(m.fib_num(), r.fib_num);
        EXPECT_EQ(m.mfib_num(), r.mfib_num);
        for (const auto &mf : m.mfibs()) EXPECT_EQ(mf.oif_id_size(), 2);
        if (r.fibs == 5) {
            EXPECT_EQ(m.ShortDebugString(),
                      "local_id: 3 shape: 2 fib_num: 5 "
                      "fibs { owner_mid: 1 dst_id: 2 oif_id: 1 } "
                      "fibs { owner_mid: 1 dst_id: 3 oif_id: 2 } "
                      "fibs { owner_mid: 9 dst_id: 9 oif_id: 9 } "
                      "fibs { owner_mid: 8 dst_id: 8 oif_id: 8 } "
                      "fibs { owner_mid: 7 dst_id: 7 oif_id: 7 } mfib_num: 1 "
                      "mfibs { owner_mid: 1 src_id: 4 iif_id: 1 oif_id: 2 oif_id: 3 }");
        }
    }
}

// The other two injections write every field the command names, the
// sub-slots 0, into the database the module reads them from.
TEST_F(Debug, InjectedAllocationAndLinkRecords) {
    EXPECT_EQ(run_cmd("dbg_modalloc", {5, 2, 3, 1}), "set mod alloc to mom, rv is 0\n");
    auto recs = platform::db_records(XN_MOM_ASIC_DB, "s_intf.evt_mod_alloc");
    ASSERT_EQ(recs.size(), 1U);
    s_intf::evt_mod_alloc alloc;
    ASSERT_TRUE(alloc.ParseFromString(recs[0].packed));
    EXPECT_EQ(alloc.ShortDebugString(), "index { devid: 2 slotid: 3 unit: 1 } modid: 5 unit: 1");

    EXPECT_EQ(run_cmd("dbg_lvsl", {1, 2, 3, 1, 2, 4, 5, 6}), "set lvsl to mom, rv is 0\n");
    recs = platform::db_records(XN_MOM_LOCAL_DB, "p_dev.vsl_local_link");
    ASSERT_EQ(recs.size(), 1U);
    p_dev::vsl_local_link link;
    ASSERT_TRUE(link.ParseFromString(recs[0].packed));
    EXPECT_EQ(link.ShortDebugString(),
              "index { devid: 1 slotid: 2 lport: 3 } status: 1 vsl_ap: 2 peer_dev_id: 4 "
              "peer_slot_id: 5 peer_lport: 6");
}

// Module ids and devices are found by their exact number, wherever they are in
// the lists; the sub-slot of an allocation is kept.
TEST_F(Debug, ModidAndDeviceDumpsFindTheirEntry) {
    add_mod(2, 3, DPM_NODE_BOX, 4);
    add_mod(2, 5, DPM_NODE_BOX, 6);
    dpm_modid_index[5]->sslot = 2;
    add_mod(3, 7);
    EXPECT_EQ(run_cmd("dump_modid_info", {5}),
              "modid:5, devid:2, slot:6, sslot:2, unit:0, type:1, is_used:0\n");
    EXPECT_EQ(run_cmd("dump_modid_info", {3}),
              "modid:3, devid:2, slot:4, sslot:0, unit:0, type:1, is_used:0\n");
    EXPECT_EQ(run_cmd("dump_modid_info", {4}), "can't find modid 4 info\n");
    EXPECT_EQ(run_cmd("dump_modid_by_dev", {3}),
              "\nthe information of dev 3\n"
              "fwd_state:0, isconfig:0, is_dtm_used:0, modid_cnt:1, modid_bmp:7,\n"
              "modid:7, devid:3, slot:1, sslot:0, unit:0, type:1, is_used:0\n");
    EXPECT_EQ(run_cmd("dump_modid_by_dev", {4}), "");
    EXPECT_EQ(run_cmd("dump_mod_slot"), "\n");
}

// Filters show devices 0..15 only; after start-up nothing is applied.
TEST_F(Debug, FilterDumps) {
    dpm_igr_permit[1].dev_bmp = (1U << 16) | (1U << 2);
    dpm_bmp_set(dpm_igr_permit[1].modid_bmp, 9);
    EXPECT_EQ(run_cmd("dump_igr", {1}),
              "\ndpm_igr_permit\ndev_bmp:2,\nmodid_bmp:9,\n"
              "\ndpm_igr_permit_applied\ndev_bmp:\nmodid_bmp:\n");
    EXPECT_EQ(run_cmd("dump_egr", {2}),
              "\ndpm_egr_block\ndev_bmp:\nmodid_bmp:\n"
              "\ndpm_egr_block_applied\ndev_bmp:\nmodid_bmp:\n");
}

}  // namespace
