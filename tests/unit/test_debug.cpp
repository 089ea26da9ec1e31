// Debug commands: registration, dumps compared byte for byte with golden
// files, and the three record injections.
#include <gtest/gtest.h>

#include <google/protobuf/text_format.h>

#include "dpm_intake.h"
#include "frame_test_util.h"
#include "p_dev.pb.h"
#include "s_intf.pb.h"
#include "test_support.h"

namespace {

using frame_test::golden;
using frame_test::run_cmd;

class Debug : public ::testing::Test {
  protected:
    void SetUp() override {
        frame_test::clean_module(1);
        ASSERT_EQ(dpm_at_init(), 0);
        platform::take_log();
    }
    void TearDown() override { dpm_cache_init(); }

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

TEST_F(Debug, RegistersTheCommandTableEvenWhenTheFrameworkFails) {
    platform::reset();
    platform::set_ssat_init_result(-3);
    EXPECT_EQ(dpm_at_init(), -3);
    EXPECT_TRUE(frame_test::has_log(platform::take_log(), "dpm_at_init", "at init -3"));
    // The operator's table, in the order it is registered.
    const std::vector<std::string> table = {
        "set-log-level",     "show-log-level",        "dump_dtm_cache",   "dump_dtm_history",
        "dump_vsl_cache",    "dump_vsl_unused_cache", "dump_vslchip_rdy", "dump_modid_info",
        "dump_modid_by_dev", "dump_modid_cache",      "dump_uc_balance",  "dump_igr",
        "dump_egr",          "dbg_modalloc",          "dbg_lvsl",         "dump_vsl_cut_type",
        "dbg_dtm",           "dbg_db_reconn",         "dump_mmc",         "dump_time",
        "dump_time_file",    "dump_mmc_back",         "dump_mod_slot",    "record_log"};
    std::vector<std::string> registered;
    for (const auto &c : platform::commands()) {
        EXPECT_EQ(c.module, "udp_dpm") << c.name;
        registered.push_back(c.name);
    }
    EXPECT_EQ(registered, table);
    const std::pair<const char *, const char *> descs[] = {
        {"dbg_modalloc", "modid:%d, sw:%d, slot%d, unit%d"},
        {"dbg_db_reconn", "db%d(0-ASIC_DB, 3-LOCAL_DB, 8-UDP_DB, 14-TOPO_DB)"},
        {"record_log", "minutes=%d, level=%d"},
        {"show-log-level", "NULL"},
        {"dump_time", "void"},
    };
    for (const auto &[name, desc] : descs) {
        bool found = false;
        for (const auto &c : platform::commands()) {
            if (c.name == name) {
                found = true;
                EXPECT_EQ(c.desc, desc);
            }
        }
        EXPECT_TRUE(found) << name;
    }
}

TEST_F(Debug, ApidIsRefusedOutside1To2) {
    const std::string refusal = golden("apid_refusal.txt");
    for (const char *c : {"dump_igr", "dump_egr", "dump_mmc", "dump_mmc_back"}) {
        for (int apid : {0, 3, -1}) EXPECT_EQ(run_cmd(c, {apid}), refusal) << c << " " << apid;
    }
}

TEST_F(Debug, IngressFilterWithBitmapLines) {
    dpm_igr_permit[1].dev_bmp = (1U << 1) | (1U << 2) | (1U << 3) | (1U << 20);
    for (uint32_t v : {1U, 2U, 3U, 7U, 2047U}) dpm_bmp_set(dpm_igr_permit[1].modid_bmp, v);
    dpm_bmp_set(dpm_igr_permit_applied[1].modid_bmp, 0);
    EXPECT_EQ(run_cmd("dump_igr", {1}), golden("dump_igr_1.txt"));
    dpm_egr_block_applied[2].dev_bmp = 1;
    EXPECT_EQ(run_cmd("dump_egr", {2}),
              "\ndpm_egr_block\ndev_bmp:\nmodid_bmp:\n\ndpm_egr_block_applied\ndev_bmp:0,\n"
              "modid_bmp:\n");
}

TEST_F(Debug, ModuleIdDumps) {
    dpm_dev_head *dev = dpm_alloc_dev_head(2);
    ASSERT_NE(dev, nullptr);
    dev->fwd_state = 2;
    auto *m = dpm_zalloc<dpm_modid_info>();
    *m = dpm_modid_info{{}, 65, 2, 1, 0, 3, 0, nullptr, 1, 0, 0};
    dpm_list_add_tail(&m->link, &dev->modid_list);
    dpm_bmp_set(dev->modid_bmp, 65);
    // Module id without a unicast port: only its first line.
    EXPECT_EQ(run_cmd("dump_modid_info", {65}),
              "modid:65, devid:2, slot:1, sslot:0, unit:3, type:1, is_used:0\n");
    EXPECT_EQ(run_cmd("dump_modid_info", {66}), "can't find modid 66 info\n");
    EXPECT_EQ(run_cmd("dump_modid_by_dev", {9}), "");

    m->is_used = 1;
    m->uc_vsl = vsl(dpm_vslap_cache, 1, 2, 1, 5);
    EXPECT_EQ(run_cmd("dump_modid_by_dev", {2}), golden("dump_modid_by_dev_2.txt"));
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

TEST_F(Debug, SmallDumps) {
    auto *uc = dpm_zalloc<dpm_uc_info>();
    *uc = dpm_uc_info{{}, 300, 12, 40, 2, 7, 1, 0};
    dpm_list_add_tail(&uc->link, &dpm_uc_head);
    auto *chip = dpm_zalloc<dpm_vsl_chip>();
    *chip = dpm_vsl_chip{{}, 2, 1, 0, 1, 44};
    dpm_list_add_tail(&chip->link, &dpm_vsl_chip_head);
    auto *ev = dpm_zalloc<dpm_mod_event>();
    ev->gslot = 33;
    dpm_list_add_tail(&ev->link, &dpm_gslot_head);
    dpm_mmc[2] = dpm_mmc_info{1, 5, 1, 0, 12, 1, 2, 0, {}, nullptr};
    dpm_bmp_set(dpm_mmc[2].vlan_bmp, 1);
    dpm_bmp_set(dpm_mmc[2].vlan_bmp, 4095);
    dpm_mmc_back[1].valid = 1;
    dpm_mmc_back[1].modid = 9;
    g_kel_ring_cut_type = 1;

    struct row {
        const char *cmd;
        int arg;
        const char *out;
    };
    const row rows[] = {
        {"dump_uc_balance", 0,
         "\ndstmodid:300, expire:1, apply:0\nlocalmodid:12, peer_modid:40, apid:2, lport:7\n\n"},
        {"dump_vslchip_rdy", 0, "\ndevid:2, slotid:1, sslotid:0, unit:1, chipid:44\n"},
        {"dump_mod_slot", 0, "\ngslot:33, devid:2, slotid:1, sslotid:0\n"},
        {"dump_mmc", 2,
         "\nvalid:1, modid:12, devid:1, slotid:2, sslotid:0, lport:5, wait_add:1, wait_del:0, "
         "vlan_bmp:1,4095,\n"},
        {"dump_mmc_back", 1, "\nvalid:1, modid:9\n"},
        {"dump_mmc_back", 2, "\nvalid:0, modid:0\n"},
        {"dump_vsl_cut_type", 0, "vsl ring cut type: 1\n"},
    };
    for (const row &r : rows) EXPECT_EQ(run_cmd(r.cmd, {r.arg}), r.out) << r.cmd;
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

TEST_F(Debug, DumpDtmCacheSurvivesAnAppliedMapThatLeftTheHistory) {
    for (int i = 0; i < 12; ++i) {
        dpm_dtm_info *info = dpm_dtm_malloc_info(1, 0);
        ASSERT_NE(info, nullptr);
        info->local_id = static_cast<uint8_t>(i);
        info->fibs[0] = {static_cast<uint8_t>(i), 1, 1};
        dpm_add_dtm_info(info);
        if (i == 0) dpm_set_hwcfg(info);
    }
    const std::string out = run_cmd("dump_dtm_cache");
    // The applied map (local_id 0) is shown, the oldest kept one is number 2.
    EXPECT_NE(out.find("\nhwcfg_dtm_info:\nlocal_id:0, shape:0, valid:0\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("\noldest_dtm_info:\nlocal_id:2, "), std::string::npos) << out;
}

TEST_F(Debug, InjectModuleIdAndVslLink) {
    EXPECT_EQ(run_cmd("dbg_modalloc", {70, 2, 3, 1}), "set mod alloc to mom, rv is 0\n");
    const auto &w = platform::module_writes();
    ASSERT_EQ(w.size(), 1U);
    EXPECT_EQ(w[0].op, platform::ModuleWrite::HmSet);
    EXPECT_EQ(w[0].db, 0);
    s_intf::evt_mod_alloc m;
    ASSERT_TRUE(m.ParseFromString(w[0].packed));
    EXPECT_EQ(m.ShortDebugString(), "index { devid: 2 slotid: 3 unit: 1 } modid: 70 unit: 1");

    EXPECT_EQ(run_cmd("dbg_lvsl", {1, 2, 3, 1, 2, 4, 5, 6}), "set lvsl to mom, rv is 0\n");
    ASSERT_EQ(w.size(), 2U);
    EXPECT_EQ(w[1].op, platform::ModuleWrite::HmSet);
    EXPECT_EQ(w[1].db, 3);
    p_dev::vsl_local_link l;
    ASSERT_TRUE(l.ParseFromString(w[1].packed));
    EXPECT_EQ(l.ShortDebugString(),
              "index { devid: 1 slotid: 2 lport: 3 } status: 1 vsl_ap: 2 peer_dev_id: 4 "
              "peer_slot_id: 5 peer_lport: 6");

    platform::fail("xn_mom_hmset", -1, 1, -9);
    EXPECT_EQ(run_cmd("dbg_modalloc", {1, 1, 1, 1}), "set mod alloc to mom, rv is -9\n");
}

class DebugDtm : public Debug {
  protected:
    void SetUp() override {
        Debug::SetUp();
        dpm_test::write_root_file("etc/pktdbg/fib",
                                  "owner:1,dst:2,oif:1\nowner:1,dst:3,oif:2\nowner:9,dst:9,oif:9\n"
                                  "owner:8,dst:8,oif:8\nowner:7,dst:7,oif:7\n");
        dpm_test::write_root_file("etc/pktdbg/mfib", "iif:1,oif1:2,oif2:3,own:1,src:4\n");
    }
    void TearDown() override {
        dpm_test::remove_root_file("etc/pktdbg/fib");
        dpm_test::remove_root_file("etc/pktdbg/mfib");
        Debug::TearDown();
    }
    static std::string stored_text() {
        auto recs = platform::db_records(3, "p_dev.dtm_route_info");
        EXPECT_EQ(recs.size(), 1U);
        if (recs.empty()) return {};
        p_dev::dtm_route_info r;
        EXPECT_TRUE(r.ParseFromString(recs[0].packed));
        std::string text;
        google::protobuf::TextFormat::PrintToString(r, &text);
        return text;
    }
};

TEST_F(DebugDtm, TwoRoutesFromAFiveLineFile) {
    EXPECT_EQ(run_cmd("dbg_dtm", {1, 2, 2, 2}), "set dtm rv is 0\n");
    // The second multicast route has no line: it is all zero.
    EXPECT_EQ(stored_text(), golden("dbg_dtm_2_routes.txt"));
}

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

TEST_F(DebugDtm, MissingFiles) {
    dpm_test::remove_root_file("etc/pktdbg/mfib");
    EXPECT_EQ(run_cmd("dbg_dtm", {1, 1, 1, 1}), "mfib file not ok");
    dpm_test::remove_root_file("etc/pktdbg/fib");
    EXPECT_EQ(run_cmd("dbg_dtm", {1, 1, 1, 1}), "fib file not ok");
    EXPECT_TRUE(platform::module_writes().empty());
}

}  // namespace
