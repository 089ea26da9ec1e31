// Debug commands: registration, dumps compared byte for byte with golden
// files, and the three record injections.
#include "module_fixture.h"
#include "p_dev.pb.h"

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
        info->mfibs[0] = {1, 1, 0, 3, {5, 6}};
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
        root_file("etc/pktdbg/fib",
                  "owner:1,dst:2,oif:1\nowner:1,dst:3,oif:2\nowner:9,dst:9,oif:9\n"
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
        EXPECT_EQ(run_cmd("dbg_dtm", {3, 0, r.fib_num, r.mfib_num}), "set dtm rv is 0\n");
        auto recs = platform::db_records(3, "p_dev.dtm_route_info");
        ASSERT_EQ(recs.size(), 1U);
        p_dev::dtm_route_info m;
        ASSERT_TRUE(m.ParseFromString(recs[0].packed));
        EXPECT_EQ(static_cast<size_t>(m.fibs_size()), r.fibs) << r.fib_num;
        EXPECT_EQ(static_cast<size_t>(m.mfibs_size()), r.mfibs) << r.mfib_num;
        EXPECT_EQ(m.fib_num(), r.fib_num);
        EXPECT_EQ(m.mfib_num(), r.mfib_num);
        for (const auto &mf : m.mfibs()) EXPECT_EQ(mf.oif_id_size(), 2);
    }
}

}  // namespace
