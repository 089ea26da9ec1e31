// TOPO_DB watchers: read-back of the module's earlier output into the caches,
// refusal of records that cannot be held, and the expiry brackets.
#include "module_fixture.h"
#include "u_cluster.pb.h"

namespace {

using namespace dpm_test;

class TopoWatch : public ModuleTest {
  protected:
    TopoWatch() : ModuleTest(4, false) {}

    static void ds_request(int (*watcher)(void *, xn_mom_msg_t *)) {
        EXPECT_EQ(watcher(platform::host_handle(), Event::ds_request().get()), 0);
        platform::run_until_idle();
    }
    static void put_uc(uint32_t modid, uint32_t local, uint32_t apid, uint32_t lport,
                       uint32_t peer) {
        const char *f = "index { modid: %u } local_modid: %u apid: %u lport: %u peer_modid: %u";
        ASSERT_EQ(platform::db_set(14, kUc, packed(kUc, fmt(f, modid, local, apid, lport, peer))),
                  0);
    }
    static std::vector<dpm_uc_info> uc_entries() {
        std::vector<dpm_uc_info> out;
        dpm_uc_info *uc = nullptr;
        dpm_list_for_each_entry(uc, &dpm_uc_head, link) out.push_back(*uc);
        return out;
    }
};

TEST_F(TopoWatch, UnicastReadBackTakesTheRecordsValues) {
    // Entries already held, with other values (200: the local module id alone) and applied.
    auto *held = dpm_zalloc<dpm_uc_info>();
    *held = dpm_uc_info{{}, 100, 1, 2, 1, 3, 0, 1};
    dpm_list_add_tail(&held->link, &dpm_uc_head);
    auto *held2 = dpm_zalloc<dpm_uc_info>();
    *held2 = dpm_uc_info{{}, 200, 4, 7, 1, 6, 0, 1};
    dpm_list_add_tail(&held2->link, &dpm_uc_head);
    put_uc(200, 5, 1, 6, 7);
    put_uc(100, 7, 2, 9, 11);
    put_uc(2047, 1, 1, 1, 1);
    put_uc(3000, 1, 1, 1, 1);  // beyond any module-id table: taken all the same

    g_mmc_ds_over = 1;
    ds_request(dpm_uc_balance_cb);
    const auto e = uc_entries();
    ASSERT_EQ(e.size(), 4U);
    EXPECT_EQ(e[0].dstmodid, 100U);
    EXPECT_EQ(&dpm_list_first_entry(&dpm_uc_head, dpm_uc_info, link)->link, &held->link);
    struct want {
        uint32_t dst, local, peer, apid, lport;
    };
    const want w[] = {
        {100, 7, 11, 2, 9}, {200, 5, 7, 1, 6}, {2047, 1, 1, 1, 1}, {3000, 1, 1, 1, 1}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(e[i].dstmodid, w[i].dst);
        EXPECT_EQ(e[i].localmodid, w[i].local) << w[i].dst;
        EXPECT_EQ(e[i].peer_modid, w[i].peer) << w[i].dst;
        EXPECT_EQ(e[i].apid, w[i].apid) << w[i].dst;
        EXPECT_EQ(e[i].lport, w[i].lport) << w[i].dst;
        EXPECT_EQ(e[i].expire, 1) << w[i].dst;
        EXPECT_EQ(e[i].apply, 0) << w[i].dst;
    }
    EXPECT_EQ(g_uc_ds_over, 1);
    EXPECT_EQ(g_igr_ds_over, 0);
    EXPECT_FALSE(platform::db_connected(XN_MOM_LOCAL_DB));  // LOCAL_DB waits for all three
}

TEST_F(TopoWatch, IngressReadBackCopiesExactly64Words) {
    u_cluster::vsl_srcmod_igr r2;
    r2.mutable_index()->set_apid(2);
    for (uint32_t i = 0; i < 64; ++i) r2.add_permit_modid(i * 2654435761U);
    u_cluster::vsl_srcmod_igr r3 = r2;
    r3.mutable_index()->set_apid(3);
    u_cluster::vsl_srcmod_igr r0 = r2;
    r0.mutable_index()->set_apid(0);
    u_cluster::vsl_srcmod_igr short1;
    short1.mutable_index()->set_apid(1);
    for (uint32_t i = 0; i < 63; ++i) short1.add_permit_modid(0xFFFFFFFFU);
    for (const auto *r : {&r2, &r3, &r0, &short1}) {
        ASSERT_EQ(platform::db_set(14, "u_cluster.vsl_srcmod_igr", r->SerializeAsString()), 0);
    }
    dpm_igr_permit_applied[1].modid_bmp[3] = 0x55;  // must survive the refused record

    g_mmc_ds_over = g_uc_ds_over = 1;
    Event broken = Event::ds_request();
    broken.msg.err = 1;  // a request that comes with an error is not answered
    EXPECT_EQ(dpm_igr_cb(platform::host_handle(), broken.get()), DPM_ERR_EVENT);
    platform::run_until_idle();
    EXPECT_FALSE(platform::db_connected(XN_MOM_LOCAL_DB));
    ds_request(dpm_igr_cb);
    EXPECT_EQ(dpm_igr_permit_applied[2].apid, 2U);
    for (uint32_t i = 0; i < 64; ++i) {
        EXPECT_EQ(dpm_igr_permit_applied[2].modid_bmp[i], i * 2654435761U) << i;
    }
    EXPECT_EQ(dpm_igr_permit_applied[1].apid, 0U);
    EXPECT_EQ(dpm_igr_permit_applied[1].modid_bmp[3], 0x55U);
    EXPECT_TRUE(dpm_bmp_empty(dpm_igr_permit_applied[0].modid_bmp));
    EXPECT_TRUE(dpm_bmp_empty(dpm_igr_permit[2].modid_bmp));  // the wanted table is not touched
    auto log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_igr_scan_cb", "igr record apid 3 out of range [1-2], dropped",
                        XN_ZLOG_ERROR));
    EXPECT_TRUE(has_log(log, "dpm_igr_scan_cb", "igr record apid 0 out of range [1-2], dropped"));
    EXPECT_TRUE(has_log(log, "dpm_igr_scan_cb",
                        "igr record apid 1 carries 63 permit words, need 64, dropped"));
    EXPECT_EQ(g_igr_ds_over, 1);
    EXPECT_TRUE(platform::db_connected(XN_MOM_LOCAL_DB));
}

TEST_F(TopoWatch, MainMulticastReadBackComesBackWaitingWithItsVlans) {
    ASSERT_EQ(dpm_at_init(), 0);  // for dump_mmc
    for (const char *r : {"index { t_cfg_modid: 12 apid: 1 } vlan: [15, 0, 1]",
                          "index { t_cfg_modid: 9 apid: 3 } vlan: [1]"}) {
        ASSERT_EQ(platform::db_set(14, kMmc, packed(kMmc, r)), 0);
    }
    platform::take_log();
    ds_request(dpm_mmc_cb);
    EXPECT_EQ(run_cmd("dump_mmc", {1}),
              "\nvalid:1, modid:12, devid:0, slotid:0, sslotid:0, lport:0, wait_add:1, "
              "wait_del:0, vlan_bmp:0-3,64,\n");
    EXPECT_TRUE(has_log(platform::take_log(), "dpm_mmc_scan_cb",
                        "mmc record apid 3 out of range [1-2], dropped", XN_ZLOG_ERROR));
    EXPECT_EQ(g_mmc_ds_over, 1);
}

// ---------------------------------------------------------------------------
// Expiry brackets
// ---------------------------------------------------------------------------

class Expire : public TopoWatch {
  protected:
    // Records of an earlier run that no new configuration writes again: each
    // disappears exactly when its bracket closes.
    static void put_stale() {
        put_uc(2000, 1, 1, 1, 1);
        for (const std::string &type : {kIgr, kEgr, std::string("u_cluster.vsl_ap_member")}) {
            ASSERT_EQ(platform::db_set(14, type, packed(type, "index { apid: 3 }")), 0);
        }
    }
    static bool stale_left(const char *type) {
        for (const auto &r : platform::db_records(14, type)) {
            if (r.type == "u_cluster.kel_uc_balance") {
                u_cluster::kel_uc_balance m;
                m.ParseFromString(r.packed);
                if (m.index().modid() == 2000) return true;
            } else {
                u_cluster::vsl_srcmod_igr m;  // the same index in all three
                m.ParseFromString(r.packed);
                if (m.index().apid() == 3) return true;
            }
        }
        return false;
    }
    static void ring_on() {
        static dpm_time_entry entries[64];
        udp_dpm_dbg_time = {0, 1, 64, 0, entries, udp_dpm_dbg_time_str};
    }
    static bool ring_has(int32_t event) {
        const udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
        for (uint32_t c = 1; c <= t.count; ++c) {
            if (t.entries[c % t.size].event == event) return true;
        }
        return false;
    }
    void TearDown() override {
        udp_dpm_dbg_time = {};
        TopoWatch::TearDown();
    }
};

TEST_F(Expire, AllBracketsOpenRewriteAndClose) {
    ring_on();
    put_stale();
    dpm_vslap_cache.ap[1].vsl_cnt = 1;  // apid 1 has a port in use, apid 2 none
    dpm_igr_permit_applied[2].modid_bmp[0] = 1;
    dpm_egr_block_applied[2].modid_bmp[0] = 1;
    platform::run_until_idle();
    platform::clear_module_writes();
    platform::take_log();
    dpm_kel_set_expire(platform::host_handle());
    EXPECT_EQ(is_exprire_mom_flag, 0);
    for (const char *t : {"u_cluster.kel_uc_balance", "u_cluster.vsl_srcmod_igr",
                          "u_cluster.vsl_srcmod_egr", "u_cluster.vsl_ap_member"}) {
        EXPECT_FALSE(stale_left(t)) << t;
    }
    EXPECT_TRUE(ring_has(DPM_T_SETEXPIRE));
    EXPECT_TRUE(ring_has(DPM_T_DELEXPIRE));
    // Nothing was rewritten without a map: the dropped filters no longer
    // count as written, and only an aggregate port with ports owes members.
    EXPECT_TRUE(dpm_bmp_empty(dpm_igr_permit_applied[2].modid_bmp));
    EXPECT_TRUE(dpm_bmp_empty(dpm_egr_block_applied[2].modid_bmp));
    EXPECT_EQ(dpm_vslap_cache.ap[1].chang_flag, 1);
    EXPECT_EQ(dpm_vslap_cache.ap[2].chang_flag, 0);
    auto log = platform::take_log();
    for (const char *f :
         {"dpm_kel_set_expire", "dpm_kel_expire_igr_finish", "dpm_kel_expire_egr_finish",
          "dpm_kel_expire_uc_finish", "dpm_kel_expire_finish", "dpm_kel_del_expire_all"}) {
        EXPECT_TRUE(has_log(log, f, "enter")) << f;
    }
}

// The first `passes` calls of `op` really happen, the next one fails, and
// every later call fails loudly with -2.
void fail_nth(const char *op, int passes) {
    platform::fail(op, 14, 1, -1, passes);
    platform::fail(op, 14, -1, -2);
}

// A bracket that does not open, whatever the sign of its result, ends the
// protocol before anything is rewritten.
TEST_F(Expire, OpeningStopsAtTheFirstFailure) {
    const std::pair<const char *, const char *> errors[] = {
        {"dpm_kel_set_expire", "xn_mom_dsbegin igr fail!"},
        {"dpm_kel_expire_igr_finish", "xn_mom_dsbegin egr fail!"},
        {"dpm_kel_expire_egr_finish", "xn_mom_dsbegin keluc fail!"},
        {"dpm_kel_expire_uc_finish", "xn_mom_dsbegin keluc fail!"}};
    for (int k = 0; k < 8; ++k) {
        SCOPED_TRACE(k);
        clean_module(4);
        platform::fail("xn_mom_dsbegin_sync", 14, 1, k < 4 ? 5 : -3, k % 4);
        dpm_kel_set_expire(platform::host_handle());
        auto log = platform::take_log();
        EXPECT_TRUE(has_log(log, errors[k % 4].first, errors[k % 4].second, XN_ZLOG_ERROR));
        EXPECT_FALSE(has_log(log, "dpm_kel_expire_finish", "enter"));
        EXPECT_EQ(is_exprire_mom_flag, 0);
        platform::clear_faults();
    }
}

TEST_F(Expire, ClosingStopsAtTheFirstFailureAndTheFlagIsCleared) {
    const char *errors[] = {"dsend keluc failed!", "dsend igr failed!", "dsend egr failed!",
                            "dsend apmbr failed!"};
    for (int k = 0; k < 4; ++k) {
        SCOPED_TRACE(errors[k]);
        clean_module(4);
        ring_on();
        put_stale();
        platform::run_until_idle();
        dpm_vslap_cache.ap[1].vsl_cnt = 1;
        dpm_igr_permit_applied[1].modid_bmp[0] = 1;
        dpm_egr_block_applied[1].modid_bmp[0] = 1;
        fail_nth("xn_mom_dsend", k);
        dpm_kel_set_expire(platform::host_handle());
        auto log = platform::take_log();
        EXPECT_TRUE(has_log(log, "dpm_kel_expire_finish", "enter"));
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(has_log(log, "dpm_kel_del_expire_all", errors[j], XN_ZLOG_ERROR), j == k)
                << errors[j];
        }
        EXPECT_EQ(is_exprire_mom_flag, 0);
        EXPECT_FALSE(ring_has(DPM_T_DELEXPIRE));
        // Brackets closed before the failure dropped their stale records; the
        // failing one and those after it were not closed.
        const char *order[] = {"u_cluster.kel_uc_balance", "u_cluster.vsl_srcmod_igr",
                               "u_cluster.vsl_srcmod_egr", "u_cluster.vsl_ap_member"};
        for (int j = 0; j < 4; ++j) EXPECT_EQ(stale_left(order[j]), j >= k) << order[j];
        // Only what was dropped no longer counts as written.
        EXPECT_EQ(dpm_bmp_empty(dpm_igr_permit_applied[1].modid_bmp), k >= 2);
        EXPECT_EQ(dpm_bmp_empty(dpm_egr_block_applied[1].modid_bmp), k >= 3);
        EXPECT_EQ(dpm_vslap_cache.ap[1].chang_flag, 0);
        platform::clear_faults();
    }
}

}  // namespace
