// The topology producer's maps: the worked chain of three, a ring cut for
// multicast, a ring that lost a hop, and what does not make a hop.
#include <gtest/gtest.h>

#include "topology.h"

namespace {

using unit::LinkEnd;

// Both ends of one link, up or down.
void link(std::vector<LinkEnd> *v, int m, int n, int apid_m, int apid_n, int port = 1,
          bool up_m = true, bool up_n = true) {
    v->push_back({m, 1, 0, port + 100 * n, up_m, apid_m, n, 1, 0, port + 100 * m});
    v->push_back({n, 1, 0, port + 100 * m, up_n, apid_n, m, 1, 0, port + 100 * n});
}

std::map<int, std::string> texts(const std::vector<LinkEnd> &links, std::set<int> present) {
    std::map<int, std::string> out;
    for (const auto &[m, map] : unit::compute_maps(unit::live_graph(links, present))) {
        out[m] = unit::map_text(map);
        unit::Map back;
        EXPECT_TRUE(unit::map_from_packed(unit::map_packed(map), &back));
        EXPECT_EQ(back, map);
    }
    return out;
}

TEST(Topology, ChainOfThreeGivesTheWorkedMaps) {
    std::vector<LinkEnd> l;
    link(&l, 1, 2, 1, 1);
    link(&l, 1, 2, 1, 1, 2);
    link(&l, 2, 3, 2, 2);
    auto m = texts(l, {1, 2, 3});
    // The maps written by hand in scenarios/three_members/up.dpm.
    EXPECT_EQ(m[1],
              "{ local_id: 1 shape: 0 fibs { owner_mid: 1 dst_id: 2 oif_id: 1 } "
              "fibs { owner_mid: 1 dst_id: 3 oif_id: 1 } mfibs { owner_mid: 1 src_id: 2 "
              "iif_id: 1 oif_id: 1 } mfibs { owner_mid: 1 src_id: 3 iif_id: 1 oif_id: 1 } }");
    EXPECT_EQ(m[2],
              "{ local_id: 2 shape: 0 fibs { owner_mid: 2 dst_id: 1 oif_id: 1 } "
              "fibs { owner_mid: 2 dst_id: 3 oif_id: 2 } mfibs { owner_mid: 2 src_id: 1 "
              "iif_id: 1 oif_id: 2 } mfibs { owner_mid: 2 src_id: 3 iif_id: 2 oif_id: 1 } }");
    EXPECT_EQ(m[3],
              "{ local_id: 3 shape: 0 fibs { owner_mid: 3 dst_id: 2 oif_id: 2 } "
              "fibs { owner_mid: 3 dst_id: 1 oif_id: 2 } mfibs { owner_mid: 3 src_id: 2 "
              "iif_id: 2 oif_id: 2 } mfibs { owner_mid: 3 src_id: 1 iif_id: 2 oif_id: 2 } }");
}

TEST(Topology, RingIsCutFarthestFromItsLowestMember) {
    std::vector<LinkEnd> l;
    link(&l, 1, 2, 1, 1);
    link(&l, 2, 3, 2, 2);
    link(&l, 3, 4, 1, 1);
    link(&l, 4, 1, 2, 2);
    auto m = texts(l, {1, 2, 3, 4});
    // Unicast takes either way round (device 3 from 1: through 2, the lower
    // id); multicast follows the tree 2-1-4 and 2-3: hop 3-4 is cut.
    EXPECT_EQ(m[1],
              "{ local_id: 1 shape: 1 fibs { owner_mid: 1 dst_id: 2 oif_id: 1 } "
              "fibs { owner_mid: 1 dst_id: 4 oif_id: 2 } fibs { owner_mid: 1 dst_id: 3 "
              "oif_id: 1 } mfibs { owner_mid: 1 src_id: 2 iif_id: 1 oif_id: 2 } "
              "mfibs { owner_mid: 1 src_id: 4 iif_id: 2 oif_id: 1 } mfibs { owner_mid: 1 "
              "src_id: 3 iif_id: 1 oif_id: 2 } }");
    EXPECT_EQ(m[3],
              "{ local_id: 3 shape: 1 fibs { owner_mid: 3 dst_id: 2 oif_id: 2 } "
              "fibs { owner_mid: 3 dst_id: 4 oif_id: 1 } fibs { owner_mid: 3 dst_id: 1 "
              "oif_id: 2 } mfibs { owner_mid: 3 src_id: 2 iif_id: 2 oif_id: 2 } "
              "mfibs { owner_mid: 3 src_id: 1 iif_id: 2 oif_id: 2 } mfibs { owner_mid: 3 "
              "src_id: 4 iif_id: 2 oif_id: 2 } }");

    // Hop 1-2 down at both ends: a chain 2-3-4-1; member 2 reaches 1 the long way.
    for (auto &e : l) {
        if ((e.member == 1 && e.peer_member == 2) || (e.member == 2 && e.peer_member == 1))
            e.up = false;
    }
    m = texts(l, {1, 2, 3, 4});
    EXPECT_EQ(m[2],
              "{ local_id: 2 shape: 0 fibs { owner_mid: 2 dst_id: 3 oif_id: 2 } "
              "fibs { owner_mid: 2 dst_id: 4 oif_id: 2 } fibs { owner_mid: 2 dst_id: 1 "
              "oif_id: 2 } mfibs { owner_mid: 2 src_id: 3 iif_id: 2 oif_id: 2 } "
              "mfibs { owner_mid: 2 src_id: 4 iif_id: 2 oif_id: 2 } mfibs { owner_mid: 2 "
              "src_id: 1 iif_id: 2 oif_id: 2 } }");
}

TEST(Topology, WhatMakesNoHop) {
    struct Row {
        const char *name;
        bool up_m, up_n;
        std::set<int> present;
        size_t maps;
    };
    const Row rows[] = {
        {"both ends up", true, true, {1, 2, 3}, 3},
        {"up at one end only", true, false, {1, 2, 3}, 2},
        {"member 1 stopped", true, true, {2, 3}, 2},
        {"member 2 stopped: 1 and 3 are alone, no maps", true, true, {1, 3}, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<LinkEnd> l;
        link(&l, 1, 2, 1, 1, 1, row.up_m, row.up_n);
        link(&l, 2, 3, 2, 2);
        EXPECT_EQ(unit::compute_maps(unit::live_graph(l, row.present)).size(), row.maps);
    }
    // An end that names another port than the far end's record is no hop.
    std::vector<LinkEnd> l;
    link(&l, 1, 2, 1, 1);
    l[1].peer_port = 7;
    EXPECT_TRUE(unit::compute_maps(unit::live_graph(l, {1, 2})).empty());
}

}  // namespace
