// Unicast balance: placement on the least loaded port, the route lookup, and
// the rebalancing passes (including caches whose counts disagree with their
// bitmaps, which must not make the loop spin).
#include <algorithm>

#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Balance : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        ds_ready();
        // Member 1 reaches member 2 through apid 1 and member 3 through apid 2;
        // member 0's own route to member 2 is not ours.
        set_dtm({{0, 2, 2}, {1, 2, 1}, {1, 3, 2}, {2, 1, 1}}, {{1, 2, 1, 1, 1, 0}});
    }
};

struct RebalanceCase {
    const char *name;
    std::vector<uint32_t> loads;     // module ids per port, numbered from 100*port
    std::vector<uint32_t> expected;  // loads afterwards
    int moved_from;                  // port whose highest module id moves (-1: none)
    int moved_to;
};

TEST_F(Balance, RebalanceMovesHighestModidOfMostLoadedPort) {
    const RebalanceCase cases[] = {
        {"3/1 -> 2/2", {3, 1}, {2, 2}, 0, 1},
        {"2/1 stays", {2, 1}, {2, 1}, -1, -1},
        {"1/1/4 -> 2/2/2 in two passes", {1, 1, 4}, {2, 2, 2}, 2, 0},
        {"0/5 -> 2/3", {0, 5}, {2, 3}, 1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        std::vector<dpm_vsl_info *> ports;
        for (size_t p = 0; p < c.loads.size(); ++p) {
            ports.push_back(add_vsl(1, static_cast<int>(p + 1)));
            for (uint32_t k = 0; k < c.loads[p]; ++k) {
                place(add_mod(2, static_cast<uint32_t>(100 * (p + 1) + k)), ports.back());
            }
        }
        dpm_restore_vsl_lb_ptr();
        dpm_restore_vsl_lb();
        // Balanced now: the pointers' refresh finds nothing to report.
        clear_log();
        dpm_restore_vsl_lb_ptr();
        const auto [low, high] = std::minmax_element(c.expected.begin(), c.expected.end());
        EXPECT_FALSE(
            logged(fmt("vsl restore is not balance! apid:1, max:%u, min:%u", *high, *low)));
        for (size_t p = 0; p < ports.size(); ++p) {
            EXPECT_EQ(ports[p]->modid_cnt, c.expected[p]) << "port " << p;
            EXPECT_EQ(dpm_list_count(&dpm_vslap_cache.ap[1].vsl_list), ports.size());
        }
        if (c.moved_from >= 0) {
            uint32_t top = static_cast<uint32_t>(100 * (c.moved_from + 1)) +
                           c.loads[static_cast<size_t>(c.moved_from)] - 1;
            dpm_modid_info *e = dpm_find_modid_info(top);
            EXPECT_EQ(e->uc_vsl, ports[static_cast<size_t>(c.moved_to)]);
            EXPECT_TRUE(dpm_bmp_test(ports[static_cast<size_t>(c.moved_to)]->modid_bmp, e->modid));
            EXPECT_FALSE(
                dpm_bmp_test(ports[static_cast<size_t>(c.moved_from)]->modid_bmp, e->modid));
        }
        // Every module id is carried by exactly the port it names.
        for (size_t p = 0; p < ports.size(); ++p) {
            for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
                if (dpm_bmp_test(ports[p]->modid_bmp, m)) {
                    EXPECT_EQ(dpm_find_modid_info(m)->uc_vsl, ports[p]) << m;
                }
            }
        }
    }
}

TEST_F(Balance, EqualLoadsPickTheOldestPort) {
    dpm_vsl_info *a = add_vsl(1, 1);
    dpm_vsl_info *b = add_vsl(1, 2);
    dpm_vsl_info *c = add_vsl(1, 3);
    dpm_restore_vsl_lb_ptr();
    EXPECT_EQ(dpm_vslap_cache.ap[1].max_uc_modid_vsl, a);
    EXPECT_EQ(dpm_vslap_cache.ap[1].min_uc_modid_vsl, a);
    // Successive additions go round the ports in list order.
    dpm_modid_info *m1 = add_mod(2, 7);
    dpm_modid_info *m2 = add_mod(2, 8);
    dpm_modid_info *m3 = add_mod(2, 9);
    dpm_modid_info *m4 = add_mod(2, 10);
    for (auto *m : {m1, m2, m3, m4}) ASSERT_EQ(dpm_uc_balance_for_modid_add(m), 0);
    EXPECT_EQ(m1->uc_vsl, a);
    EXPECT_EQ(m2->uc_vsl, b);
    EXPECT_EQ(m3->uc_vsl, c);
    EXPECT_EQ(m4->uc_vsl, a);
    EXPECT_EQ(a->modid_cnt, 2u);
    EXPECT_EQ(dpm_vslap_cache.ap[1].max_uc_modid_vsl, a);
    EXPECT_EQ(dpm_vslap_cache.ap[1].min_uc_modid_vsl, b);
}

struct PlaceCase {
    const char *name;
    uint32_t devid;
    uint32_t type;
    int rv;
    bool placed;
    uint32_t load;  // load of the apid's port afterwards
    const char *log;
};

TEST_F(Balance, PlacementByTypeAndRoute) {
    const PlaceCase cases[] = {
        {"box on apid 1", 2, DPM_NODE_BOX, 0, true, 1, "uc oif is 1"},
        {"main board carries no load", 2, DPM_NODE_MB, 0, true, 0, "uc oif is 1"},
        {"unknown type never placed", 2, DPM_NODE_UNKNOWN, 0, false, 0,
         "unkown type modid, skip it"},
        {"fabric card never placed", 2, DPM_NODE_SFC, 0, false, 0, "fabric card modid, skip it"},
        {"no route to device 4", 4, DPM_NODE_BOX, -11, false, 0, "cant find oif for modid 50!"},
        {"apid 2 without ports", 3, DPM_NODE_BOX, 0, false, 0, "min uc vsl is NULL!"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        dpm_vsl_info *p = add_vsl(1, 1);
        dpm_restore_vsl_lb_ptr();
        dpm_modid_info *e = add_mod(c.devid, 50, c.type);
        clear_log();
        EXPECT_EQ(dpm_uc_balance_for_modid_add(e), c.rv);
        EXPECT_EQ(e->is_used != 0, c.placed);
        EXPECT_EQ(e->uc_vsl, c.placed ? p : nullptr);
        EXPECT_EQ(dpm_bmp_test(p->modid_bmp, 50), c.placed);
        EXPECT_EQ(p->modid_cnt, c.load);
        EXPECT_TRUE(logged(c.log));
        EXPECT_TRUE(logged("enter, modid:50", "dpm_uc_balance_for_modid_add"));
    }
}

TEST_F(Balance, MainBoardsMoveWithoutChangingLoad) {
    dpm_vsl_info *a = add_vsl(1, 1);
    dpm_vsl_info *b = add_vsl(1, 2);
    for (uint32_t m : {1u, 2u, 3u}) place(add_mod(2, m), a);
    for (uint32_t m : {10u, 11u, 12u}) place(add_mod(2, m, DPM_NODE_MB), a);
    ASSERT_EQ(a->modid_cnt, 3u);
    dpm_restore_vsl_lb_ptr();
    dpm_restore_vsl_lb();
    // 12, 11 and 10 move first without changing the loads; then 3 evens them.
    EXPECT_EQ(a->modid_cnt, 2u);
    EXPECT_EQ(b->modid_cnt, 1u);
    for (uint32_t m : {3u, 10u, 11u, 12u}) {
        EXPECT_TRUE(dpm_bmp_test(b->modid_bmp, m)) << m;
        EXPECT_EQ(dpm_find_modid_info(m)->uc_vsl, b) << m;
    }
    for (uint32_t m : {1u, 2u}) EXPECT_TRUE(dpm_bmp_test(a->modid_bmp, m)) << m;
}

TEST_F(Balance, RebalanceEndsWhenBitmapDisagreesWithCount) {
    struct Case {
        const char *name;
        std::vector<uint32_t> bits;  // bits of port A; none has a module-id entry
        uint32_t known;              // module ids of A that do have an entry
    } cases[] = {
        {"count without bits", {}, 0},
        {"bits of unknown module ids", {5, 900, 2047}, 0},
        {"one movable module id, count far too high", {7, 8}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        dpm_vsl_info *a = add_vsl(1, 1);
        dpm_vsl_info *b = add_vsl(1, 2);
        for (uint32_t m : c.bits) dpm_bmp_set(a->modid_bmp, m);
        for (uint32_t k = 0; k < c.known; ++k) {
            dpm_modid_info *e = add_mod(2, 1000 + k);
            dpm_bmp_set(a->modid_bmp, e->modid);
            e->uc_vsl = a;
        }
        a->modid_cnt = 50;
        dpm_restore_vsl_lb_ptr();
        dpm_restore_vsl_lb_in_ap(1);
        EXPECT_EQ(b->modid_cnt, c.known);
        EXPECT_EQ(a->modid_cnt, 50 - c.known);
        for (uint32_t m : c.bits) EXPECT_TRUE(dpm_bmp_test(a->modid_bmp, m)) << m;
        const auto log = platform::take_log();
        const char *fn = "dpm_restore_vsl_lb_in_ap";
        EXPECT_EQ(has_log(log, fn, "change uc modid info:1000"), c.known != 0);
        EXPECT_TRUE(has_log(
            log, fn, fmt("no modid can be moved, apid:1, max:%u, min:%u", 50 - c.known, c.known)));
        if (!c.bits.empty()) {
            const std::string text = "can't find modid info:" + std::to_string(c.bits.back());
            EXPECT_TRUE(has_log(log, fn, text));
        }
    }
    dpm_restore_vsl_lb_in_ap(0);
    dpm_restore_vsl_lb_in_ap(3);
}

}  // namespace
