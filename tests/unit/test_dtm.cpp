// Topology map intake: conversion of both ring-cut record types into the
// compact form, refusals, the bounded history and the applied map that may
// outlive its place in it, the data-sync request and scan end, and the state
// cleanup of devices the map no longer reaches.
#include <vector>

#include "intake_fixture.h"

namespace {

using dpm_test::Event;
using intake_test::IntakeTest;

struct Fib {
    int32_t owner, dst, oif;
};
struct Mfib {
    int32_t owner, src, iif;
    std::vector<int32_t> oifs;
};

// A route map record of either type, owning everything it points to.
class DtmRecord {
  public:
    DtmRecord(const std::vector<Fib> &fibs, const std::vector<Mfib> &mfibs, bool fiap = false,
              int32_t local_id = 1, int32_t shape = 2)
        : fiap_(fiap) {
        fibs_.resize(fibs.size());
        mfibs_.resize(mfibs.size());
        oifs_.resize(mfibs.size());
        for (size_t i = 0; i < fibs.size(); ++i) {
            fibs_[i] = P_DEV__DTM_FIB_INFO__INIT;
            fibs_[i].owner_mid = fibs[i].owner;
            fibs_[i].dst_id = fibs[i].dst;
            fibs_[i].oif_id = fibs[i].oif;
            fibp_.push_back(&fibs_[i]);
        }
        for (size_t i = 0; i < mfibs.size(); ++i) {
            mfibs_[i] = P_DEV__DTM_MFIB_INFO__INIT;
            mfibs_[i].owner_mid = mfibs[i].owner;
            mfibs_[i].src_id = mfibs[i].src;
            mfibs_[i].iif_id = mfibs[i].iif;
            oifs_[i] = mfibs[i].oifs;
            mfibs_[i].n_oif_id = oifs_[i].size();
            mfibs_[i].oif_id = oifs_[i].data();
            mfibp_.push_back(&mfibs_[i]);
        }
        plain_.local_id = fiap_rec_.local_id = local_id;
        plain_.shape = fiap_rec_.shape = shape;
        plain_.n_fibs = fiap_rec_.n_fiap_fibs = fibp_.size();
        plain_.fibs = fiap_rec_.fiap_fibs = fibp_.data();
        plain_.n_mfibs = fiap_rec_.n_fiap_mfibs = mfibp_.size();
        plain_.mfibs = fiap_rec_.fiap_mfibs = mfibp_.data();
        // The writer's own counts are deliberately wrong: the lists decide.
        plain_.fib_num = fiap_rec_.fib_num = 99;
        plain_.mfib_num = fiap_rec_.mfib_num = 99;
    }
    DtmRecord(const DtmRecord &) = delete;
    ProtobufCMessage *msg() { return fiap_ ? &fiap_rec_.base : &plain_.base; }

  private:
    bool fiap_;
    std::vector<PDev__DtmFibInfo> fibs_;
    std::vector<PDev__DtmFibInfo *> fibp_;
    std::vector<PDev__DtmMfibInfo> mfibs_;
    std::vector<PDev__DtmMfibInfo *> mfibp_;
    std::vector<std::vector<int32_t>> oifs_;
    PDev__DtmRouteInfo plain_ = P_DEV__DTM_ROUTE_INFO__INIT;
    PDev__DtmFiapRouteInfo fiap_rec_ = P_DEV__DTM_FIAP_ROUTE_INFO__INIT;
};

int feed(DtmRecord &r) {
    Event e = Event::set(r.msg());
    return dpm_dtm_cb(platform::host_handle(), e.get());
}

int feed_simple(int32_t local_id) {
    DtmRecord r({}, {{2, 2, 1, {1}}}, false, local_id);
    return feed(r);
}

class DtmTest : public IntakeTest {};

// ---- conversion ------------------------------------------------------------------

struct ConvertCase {
    const char *name;
    bool fiap;
};

class DtmConvertTest : public DtmTest, public ::testing::WithParamInterface<ConvertCase> {};

TEST_P(DtmConvertTest, StoresEveryRouteInOneByteWithTrueOifCount) {
    DtmRecord r({{1, 2, 1}, {258, 513, 1026}},
                {{1, 2, 1, {1, 2, 2}}, {2, 1, 2, {1}}, {300, 301, 302, {}}}, GetParam().fiap, 257,
                770);
    ASSERT_EQ(feed(r), 0);
    const dpm_dtm_info *info = dpm_dtm_cache.newest;
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->local_id, 1);  // 257 mod 256
    EXPECT_EQ(info->shape, 2);     // 770 mod 256
    ASSERT_EQ(info->fib_num, 2U);
    ASSERT_EQ(info->mfib_num, 3U);
    EXPECT_EQ(info->valid, 0);
    // The entries sit directly behind the header, mfibs behind the fibs.
    EXPECT_EQ(reinterpret_cast<const char *>(info->fibs),
              reinterpret_cast<const char *>(info) + sizeof(dpm_dtm_info));
    EXPECT_EQ(reinterpret_cast<const char *>(info->mfibs),
              reinterpret_cast<const char *>(info->fibs) + 3 * 2);

    EXPECT_EQ(info->fibs[0].owner, 1);
    EXPECT_EQ(info->fibs[0].dst, 2);
    EXPECT_EQ(info->fibs[0].oif, 1);
    EXPECT_EQ(info->fibs[1].owner, 2);  // 258
    EXPECT_EQ(info->fibs[1].dst, 1);    // 513
    EXPECT_EQ(info->fibs[1].oif, 2);    // 1026

    EXPECT_EQ(info->mfibs[0].oif_num, 3);  // three ports, two kept
    EXPECT_EQ(info->mfibs[0].oif_id[0], 1);
    EXPECT_EQ(info->mfibs[0].oif_id[1], 2);
    EXPECT_EQ(info->mfibs[1].oif_num, 1);
    EXPECT_EQ(info->mfibs[1].oif_id[0], 1);
    EXPECT_EQ(info->mfibs[1].oif_id[1], 0);  // single port: second slot empty
    EXPECT_EQ(info->mfibs[2].owner, 44);     // 300
    EXPECT_EQ(info->mfibs[2].src, 45);
    EXPECT_EQ(info->mfibs[2].iif, 46);
    EXPECT_EQ(info->mfibs[2].oif_num, 0);
}

INSTANTIATE_TEST_SUITE_P(BothRingCutTypes, DtmConvertTest,
                         ::testing::Values(ConvertCase{"route_info", false},
                                           ConvertCase{"fiap_route_info", true}),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- refusals -----------------------------------------------------------------------

TEST_F(DtmTest, RefusedEventsLeaveTheHistoryAlone) {
    ASSERT_EQ(feed_simple(7), 0);
    dpm_dtm_info *before = dpm_dtm_cache.newest;

    DtmRecord good({{1, 2, 1}}, {{1, 2, 1, {1}}});
    DtmRecord no_mfib({{1, 2, 1}}, {});
    UCluster__DevIdx wrong_type = U_CLUSTER__DEV_IDX__INIT;
    struct Row {
        const char *name;
        Event ev;
        bool null_event;
        const char *message;
    };
    std::vector<Row> rows = {
        {"no event", Event{}, true, "msg is NULL!"},
        {"event error", Event::error(5), false, "msg error is 5!"},
        {"delete event", Event::del(good.msg()), false, "dtm route info invalid cmd:3"},
        {"entry form", Event::hmset(good.msg()), false, "dtm route info invalid cmd:4"},
        {"no record", Event::set(nullptr), false, "dtm_info error is 0!"},
        {"other record type", Event::set(&wrong_type.base), false, "dtm_info error is 0!"},
        {"empty mfib list", Event::set(no_mfib.msg()), false, "DTM mfib_num err:0"},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.name);
        clear_log();
        int rv = dpm_dtm_cb(platform::host_handle(), row.null_event ? nullptr : row.ev.get());
        EXPECT_EQ(rv, DPM_ERR_EVENT);
        EXPECT_TRUE(logged(row.message, "dpm_dtm_cb"));
        EXPECT_EQ(dpm_dtm_cache.newest, before);
        EXPECT_EQ(dpm_dtm_cache.dtm_info_cnt, 1U);
        EXPECT_EQ(intake_test::list_len(&dpm_dtm_cache.history), 1U);
    }
}

// ---- history ------------------------------------------------------------------------

TEST_F(DtmTest, HistoryKeepsTenMapsAndEvictsTheOldest) {
    struct Row {
        int maps;
        uint32_t cnt;
        size_t kept;
        int oldest_id;
        int newest_id;
    };
    const Row rows[] = {{1, 1, 1, 1, 1},
                        {10, 10, 10, 1, 10},
                        {11, 11, 10, 2, 11},
                        {12, 12, 10, 3, 12},
                        {25, 25, 10, 16, 25}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.maps);
        dpm_cache_init();
        for (int i = 1; i <= row.maps; ++i) ASSERT_EQ(feed_simple(i), 0);
        EXPECT_EQ(dpm_dtm_cache.dtm_info_cnt, row.cnt);
        EXPECT_EQ(intake_test::list_len(&dpm_dtm_cache.history), row.kept);
        ASSERT_NE(dpm_dtm_cache.oldest, nullptr);
        EXPECT_EQ(dpm_dtm_cache.oldest->local_id, row.oldest_id);
        EXPECT_EQ(dpm_dtm_cache.newest->local_id, row.newest_id);
        EXPECT_EQ(dpm_list_first_entry(&dpm_dtm_cache.history, dpm_dtm_info, link),
                  dpm_dtm_cache.oldest);
        // List order is arrival order.
        int expect = row.oldest_id;
        dpm_dtm_info *m = nullptr;
        dpm_list_for_each_entry(m, &dpm_dtm_cache.history, link) {
            EXPECT_EQ(m->local_id, expect++);
        }
    }
}

// ---- data sync ------------------------------------------------------------------------

// ---- state cleanup of unreached devices -------------------------------------------

TEST_F(DtmTest, DelStateByDtmResetsUnreachedDevicesAndOnlyMasterDeletesRecords) {
    struct Row {
        uint32_t role;
        size_t fwd_deletes;
        size_t chip_deletes;
        size_t chips_left;
    };
    for (const Row &row : {Row{1, 1, 1, 2}, Row{2, 0, 0, 3}, Row{0, 0, 0, 3}}) {
        SCOPED_TRACE(row.role);
        dpm_cache_init();
        platform::clear_module_writes();
        g_my_grole = row.role;
        dpm_dev_head *me = dpm_alloc_dev_head(1);
        dpm_dev_head *gone = dpm_alloc_dev_head(2);
        dpm_dev_head *reached = dpm_alloc_dev_head(3);
        ASSERT_TRUE(me && gone && reached);
        me->is_dtm_used = 0;  // the own device is never touched, used or not
        for (dpm_dev_head *d : {me, gone, reached}) {
            d->fwd_state = DPM_FWD_FORWARD;
            d->isconfig = 1;
        }
        reached->is_dtm_used = 1;
        for (uint32_t dev : {1U, 2U, 3U}) {
            auto *c = dpm_zalloc<dpm_vsl_chip>();
            c->devid = dev;
            c->modid = 10 + dev;
            dpm_list_add_tail(&c->link, &dpm_vsl_chip_head);
        }

        EXPECT_EQ(dpm_del_state_by_dtm(), 0);
        EXPECT_EQ(gone->fwd_state, DPM_FWD_BLOCK);
        EXPECT_EQ(gone->isconfig, 0);
        EXPECT_EQ(me->fwd_state, DPM_FWD_FORWARD);
        EXPECT_EQ(me->isconfig, 1);
        EXPECT_EQ(reached->fwd_state, DPM_FWD_FORWARD);
        EXPECT_EQ(reached->isconfig, 1);
        EXPECT_EQ(gone->is_dtm_used, 0);  // left as it was
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.kel_dev_fwdstate", platform::ModuleWrite::Del),
            row.fwd_deletes);
        EXPECT_EQ(
            intake_test::count_writes("u_cluster.vsl_chip_fwdstate", platform::ModuleWrite::Del),
            row.chip_deletes);
        EXPECT_EQ(intake_test::list_len(&dpm_vsl_chip_head), row.chips_left);
        EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 3U);
    }
}

}  // namespace
