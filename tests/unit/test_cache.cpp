// Shared data of the module: the intrusive list, bitmaps and their dump line,
// card positions, start-up emptying of the caches, readiness and lookups.
#include <gtest/gtest.h>

#include "dpm_intake.h"
#include "frame_test_util.h"

namespace {

struct item {
    dpm_list link;
    int v;
};

TEST(List, AppendsAtTailWalksFromHeadAndPoisonsRemoved) {
    dpm_list head;
    dpm_list_init(&head);
    EXPECT_TRUE(dpm_list_empty(&head));
    EXPECT_EQ(dpm_list_count(&head), 0U);
    // An empty walk touches only the head.
    int visits = 0;
    item *it = nullptr;
    dpm_list_for_each_entry(it, &head, link)++ visits;
    EXPECT_EQ(visits, 0);

    item a{{}, 1}, b{{}, 2}, c{{}, 3};
    dpm_list_add_tail(&a.link, &head);
    dpm_list_add_tail(&b.link, &head);
    dpm_list_add_tail(&c.link, &head);
    std::vector<int> seen;
    dpm_list_for_each_entry(it, &head, link) seen.push_back(it->v);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));

    dpm_list_del(&b.link);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.link.next), 0x100100U);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.link.prev), 0x200200U);
    seen.clear();
    item *n = nullptr;
    dpm_list_for_each_entry_safe(it, n, &head, link) {
        seen.push_back(it->v);
        dpm_list_del(&it->link);
    }
    EXPECT_EQ(seen, (std::vector<int>{1, 3}));
    EXPECT_TRUE(dpm_list_empty(&head));
    EXPECT_EQ(head.prev, &head);
}

TEST(Bitmap, SetTestClearStayInsideWidth) {
    dpm_modid_bmp b{};
    EXPECT_TRUE(dpm_bmp_set(b, 0));
    EXPECT_TRUE(dpm_bmp_set(b, 2047));
    EXPECT_FALSE(dpm_bmp_set(b, 2048));  // one beyond: refused, nothing written
    EXPECT_TRUE(dpm_bmp_test(b, 2047));
    EXPECT_FALSE(dpm_bmp_test(b, 2048));
    EXPECT_EQ(b[63], 0x80000000U);
    EXPECT_EQ(b[0], 1U);
    EXPECT_TRUE(dpm_bmp_clear(b, 0));
    EXPECT_FALSE(dpm_bmp_clear(b, 4000));
    EXPECT_EQ(b[0], 0U);
    uint32_t w = 0;
    dpm_word_set(w, 31);
    dpm_word_set(w, 32);
    EXPECT_EQ(w, 0x80000000U);
}

TEST(Bitmap, DumpLineRuns) {
    struct row {
        std::vector<uint32_t> set;
        uint32_t nbits;
        const char *line;
    };
    const row rows[] = {
        {{1, 2, 3, 7, 2047}, 2048, "1-3,7,2047,\n"},
        {{}, 2048, "\n"},
        {{5}, 2048, "5,\n"},
        {{0, 1}, 2048, "0-1,\n"},
        {{31, 32, 33, 64}, 2048, "31-33,64,\n"},
        {{2046, 2047}, 2048, "2046-2047,\n"},
        // Device bitmaps show devices 0..15 only.
        {{0, 15, 16, 31}, 16, "0,15,\n"},
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, 16, "0-15,\n"},
    };
    for (const row &r : rows) {
        dpm_modid_bmp b{};
        for (uint32_t v : r.set) dpm_bmp_set(b, v);
        EXPECT_EQ(dpm_bmp_line(b.data(), r.nbits), r.line);
    }
    dpm_vlan_bmp all{};
    all.fill(0xFFFFFFFFU);
    EXPECT_EQ(dpm_bmp_line(all), "0-4095,\n");
}

TEST(Gslot, DecodesPackedCardPosition) {
    struct row {
        uint32_t gslot, dev, slot, sslot;
    };
    const row rows[] = {
        {33, 2, 1, 0},
        {0, 1, 0, 0},
        {(3U << 10) | (4U << 5) | 7U, 5, 7, 3},
        {0x7FFF, 32, 31, 31},
    };
    for (const row &r : rows) {
        EXPECT_EQ(dpm_gslot_devid(r.gslot), r.dev) << r.gslot;
        EXPECT_EQ(dpm_gslot_slot(r.gslot), r.slot) << r.gslot;
        EXPECT_EQ(dpm_gslot_sslot(r.gslot), r.sslot) << r.gslot;
        EXPECT_EQ(dpm_gslot_make(r.dev, r.slot, r.sslot), r.gslot);
    }
}

TEST(FwdStateTable, NamesInOrder) {
    const char *names[] = {"block", "part_forward", "forward", "timeout"};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(dpm_fwd_state_tbl[i].state, i);
        EXPECT_STREQ(dpm_fwd_state_tbl[i].name, names[i]);
    }
}

class Cache : public ::testing::Test {
  protected:
    void SetUp() override { frame_test::clean_module(); }
    void TearDown() override { dpm_cache_init(); }
};

// Fill every cache with something, as a running module would.
void fill_caches() {
    dpm_dev_head *dev = dpm_alloc_dev_head(3);
    ASSERT_NE(dev, nullptr);
    auto *m = dpm_zalloc<dpm_modid_info>();
    m->modid = 70;
    dpm_list_add_tail(&m->link, &dev->modid_list);
    dpm_modid_index[70] = m;
    for (dpm_vslap_cache_t *c : {&dpm_vslap_cache, &dpm_vslap_unused_cache}) {
        auto *v = dpm_zalloc<dpm_vsl_info>();
        dpm_list_add_tail(&v->link, &c->ap[1].vsl_list);
        c->ap[1].vsl_cnt = 1;
        c->ap[1].max_uc_modid_vsl = v;
        c->ap[1].min_uc_modid_vsl = v;
        c->ap[1].chang_flag = 1;
        c->ds_end = 1;
    }
    auto *uc = dpm_zalloc<dpm_uc_info>();
    dpm_list_add_tail(&uc->link, &dpm_uc_head);
    auto *chip = dpm_zalloc<dpm_vsl_chip>();
    dpm_list_add_tail(&chip->link, &dpm_vsl_chip_head);
    auto *ev = dpm_zalloc<dpm_mod_event>();
    dpm_list_add_tail(&ev->link, &dpm_gslot_head);
    dpm_dtm_info *info = dpm_zalloc<dpm_dtm_info>();
    dpm_list_add_tail(&info->link, &dpm_dtm_cache.history);
    dpm_dtm_cache.dtm_info_cnt = 1;
    dpm_dtm_cache.newest = dpm_dtm_cache.oldest = info;
    dpm_dtm_cache.ds_end = 1;
    dpm_igr_permit[1].dev_bmp = 1;
    dpm_egr_block[2].modid_bmp[5] = 9;
    dpm_igr_permit_applied[2].apid = 2;
    dpm_egr_block_applied[1].dev_bmp = 4;
    dpm_mmc[1].valid = 1;
    dpm_mmc_back[2].modid = 8;
    dpm_modid_dev_cache.ds_end = 1;
    dpm_modid_dev_cache.mod_cnt = 1;
}

template <class T>
bool all_zero(const T &t) {
    const auto *p = reinterpret_cast<const unsigned char *>(&t);
    for (size_t i = 0; i < sizeof t; ++i)
        if (p[i] != 0) return false;
    return true;
}

TEST_F(Cache, InitEmptiesEveryListAndZeroesEveryTable) {
    fill_caches();
    dpm_cache_init();

    EXPECT_TRUE(dpm_list_empty(&dpm_modid_dev_cache.dev_list));
    EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 0U);
    EXPECT_EQ(dpm_modid_dev_cache.mod_cnt, 0U);
    EXPECT_EQ(dpm_modid_dev_cache.dev_bmp, 0U);
    EXPECT_TRUE(dpm_bmp_empty(dpm_modid_dev_cache.mod_bmp));
    EXPECT_EQ(dpm_modid_dev_cache.ds_end, 0);
    for (dpm_vslap_cache_t *c : {&dpm_vslap_cache, &dpm_vslap_unused_cache}) {
        for (const dpm_vslap_entry &ap : c->ap) {
            EXPECT_TRUE(dpm_list_empty(&ap.vsl_list));
            EXPECT_EQ(ap.vsl_cnt, 0U);
            EXPECT_EQ(ap.max_uc_modid_vsl, nullptr);
            EXPECT_EQ(ap.min_uc_modid_vsl, nullptr);
            EXPECT_EQ(ap.chang_flag, 0);
        }
        EXPECT_EQ(c->ds_end, 0);
    }
    EXPECT_TRUE(dpm_list_empty(&dpm_dtm_cache.history));
    EXPECT_EQ(dpm_dtm_cache.dtm_info_cnt, 0U);
    EXPECT_EQ(dpm_dtm_cache.newest, nullptr);
    EXPECT_EQ(dpm_dtm_cache.oldest, nullptr);
    EXPECT_EQ(dpm_dtm_cache.hwcfg, nullptr);
    EXPECT_EQ(dpm_dtm_cache.ds_end, 0);
    EXPECT_TRUE(dpm_list_empty(&dpm_uc_head));
    EXPECT_TRUE(dpm_list_empty(&dpm_vsl_chip_head));
    EXPECT_TRUE(dpm_list_empty(&dpm_gslot_head));
    EXPECT_TRUE(all_zero(dpm_igr_permit));
    EXPECT_TRUE(all_zero(dpm_egr_block));
    EXPECT_TRUE(all_zero(dpm_igr_permit_applied));
    EXPECT_TRUE(all_zero(dpm_egr_block_applied));
    EXPECT_TRUE(all_zero(dpm_mmc));
    EXPECT_TRUE(all_zero(dpm_mmc_back));
    EXPECT_EQ(dpm_modid_index[70], nullptr);
    EXPECT_EQ(dpm_find_modid_info(70), nullptr);
}

TEST_F(Cache, InitReleasesAnAppliedMapThatLeftTheHistory) {
    // Eleven maps in a row, the first one applied: it leaves the history but
    // stays alive for hwcfg; emptying the caches must release it too (the
    // sanitizer build would report it otherwise).
    for (int i = 0; i < 11; ++i) {
        dpm_dtm_info *info = dpm_dtm_malloc_info(0, 0);
        ASSERT_NE(info, nullptr);
        dpm_add_dtm_info(info);
        if (i == 0) dpm_set_hwcfg(info);
    }
    EXPECT_EQ(dpm_list_count(&dpm_dtm_cache.history), DPM_DTM_HISTORY_MAX);
    EXPECT_NE(dpm_dtm_cache.hwcfg, nullptr);
    dpm_cache_init();
    EXPECT_EQ(dpm_dtm_cache.hwcfg, nullptr);
    EXPECT_TRUE(dpm_list_empty(&dpm_dtm_cache.history));
}

TEST_F(Cache, ReadinessNeedsAllFourFlagsAndAMap) {
    struct row {
        uint8_t dtm, vsl, modid, chip;
        uint32_t maps;
        bool ds_end, ready;
    };
    const row rows[] = {
        {1, 1, 1, 1, 1, true, true},   {1, 1, 1, 1, 0, true, false},  {0, 1, 1, 1, 1, false, false},
        {1, 0, 1, 1, 1, false, false}, {1, 1, 0, 1, 1, false, false}, {1, 1, 1, 0, 1, false, false},
        {0, 0, 0, 0, 0, false, false},
    };
    for (const row &r : rows) {
        dpm_dtm_cache.ds_end = r.dtm;
        dpm_vslap_cache.ds_end = r.vsl;
        dpm_vslap_unused_cache.ds_end = 1;  // not one of the four
        dpm_modid_dev_cache.ds_end = r.modid;
        rdy_vsl_chip_ds_end = r.chip;
        dpm_dtm_cache.dtm_info_cnt = r.maps;
        EXPECT_EQ(dpm_is_ds_end(), r.ds_end);
        EXPECT_EQ(dpm_is_ds_ready(), r.ready);
    }
    dpm_dtm_cache.dtm_info_cnt = 0;
}

TEST_F(Cache, LookupsFindFirstMatchAndRefuseOutOfRange) {
    EXPECT_EQ(dpm_find_dev_head(1), nullptr);
    dpm_dev_head *d2 = dpm_alloc_dev_head(2);
    dpm_dev_head *d5 = dpm_alloc_dev_head(5);
    EXPECT_EQ(dpm_find_dev_head(5), d5);
    EXPECT_EQ(dpm_find_dev_head(2), d2);
    EXPECT_EQ(dpm_find_dev_head(7), nullptr);

    auto *m = dpm_zalloc<dpm_modid_info>();
    m->modid = 2047;
    dpm_list_add_tail(&m->link, &d5->modid_list);
    dpm_modid_index[2047] = m;
    EXPECT_EQ(dpm_find_modid_info(2047), m);
    EXPECT_EQ(dpm_find_modid_info(0), nullptr);
    EXPECT_EQ(dpm_find_modid_info(2048), nullptr);
    EXPECT_EQ(dpm_find_modid_info(0xFFFFFFFFU), nullptr);
}

}  // namespace
