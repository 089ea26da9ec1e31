// Shared data of the module: the intrusive list, bitmaps and their dump line,
// card positions, start-up emptying of the caches, readiness and lookups.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

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

class Cache : public ModuleTest {
  protected:
    Cache() : ModuleTest(4, false) {}
};

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

// The history keeps the last ten maps; older ones are released (the
// sanitizer build sees one that is not).
TEST_F(Cache, HistoryKeepsTheLastTenMaps) {
    for (int i = 0; i < 12; ++i) set_dtm({}, {{1, 2, 1, 1, static_cast<uint8_t>(i), 0}});
    EXPECT_EQ(dpm_list_count(&dpm_dtm_cache.history), 10U);
    EXPECT_EQ(dpm_dtm_cache.oldest->mfibs[0].oif_id[0], 2);
}

// A map event without a route map (no record, or a record of another type) is
// refused as such and stores nothing.
TEST_F(Cache, MapEventWithoutAMapIsRefused) {
    FromText<UCluster__KelDevFwdstate> other(&u_cluster__kel_dev_fwdstate__descriptor,
                                             "index { devid: 2 } fwd_state: \"forward\"");
    for (ProtobufCMessage *rec : {static_cast<ProtobufCMessage *>(nullptr), other.base()}) {
        clear_log();
        EXPECT_EQ(dpm_dtm_cb(platform::host_handle(), Event::set(rec).get()), DPM_ERR_EVENT);
        EXPECT_TRUE(logged("dtm_info error is 0!"));
    }
    EXPECT_EQ(dpm_dtm_cache.dtm_info_cnt, 0U);
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
