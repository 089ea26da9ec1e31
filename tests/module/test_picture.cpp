// Pictures of a unit: the DOT text of small units against golden files (ring
// order, links folded with their summary, a stopped member, stale and
// contradicting records flagged, every link drawn on request), the same text
// whatever order the records come in, and a ring of 8 members with 16 links per
// hop that Graphviz draws at most 2,000 px wide.
// DPM_PICTURE_OUT=DIR keeps every text and the ring's PNG there to look at.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lexer.h"
#include "module_fixture.h"
#include "picture.h"
#include "record_text.h"
#include "u_cluster.pb.h"

namespace {

namespace fs = std::filesystem;
using dpm_test::fmt;
using host::MemberView;
using host::ProcessState;

platform::Record rec(int db, const std::string &type, const std::string &text) {
    return platform::make_record(db, type, dpm_test::packed(type, text)).value();
}

// A unit wired in `order`: hop i joins order[i] and order[i + 1] (and the last
// the first, in a ring) with `links` links, in apid 1 for even i and apid 2 for
// odd i at both ends, on slot = apid, ports 1..links. Every member is healthy:
// running, "forward", each port in its member list, the other members'
// `modids` line-card module ids balanced over its ports in turn, the main
// multicast of each apid on its first port and confirmed.
std::vector<MemberView> unit(const std::vector<int> &order, bool ring, int links, int modids) {
    auto modid = [&](int d, int slot) { return (d - 1) * (2 + modids) + slot; };
    std::map<int, MemberView> views;
    std::vector<platform::Record> shared;
    for (int d : order) {
        views[d] = {static_cast<uint32_t>(d), {}, ProcessState::running};
        shared.push_back(rec(8, "u_cluster.kel_dev_fwdstate",
                             fmt("index { devid: %d } fwd_state: \"forward\"", d)));
        for (int slot = 1; slot <= 2 + modids; ++slot) {  // slots 1 and 2: the VSL chips
            shared.push_back(
                rec(0, "s_intf.evt_mod_alloc",
                    fmt("index { devid: %d slotid: %d } modid: %d", d, slot, modid(d, slot))));
            if (slot > 2) continue;
            shared.push_back(rec(8, "u_cluster.vsl_chip_fwdstate",
                                 fmt("index { t_devid: %d slot: %d } fwd_state: \"forward\" "
                                     "modid: %d",
                                     d, slot, modid(d, slot))));
        }
    }
    std::map<std::pair<int, int>, int> peer;  // (member, apid): the member at the other end
    for (size_t i = 0; i < (ring ? order.size() : order.size() - 1); ++i) {
        int a = order[i], b = order[(i + 1) % order.size()], apid = 1 + static_cast<int>(i % 2);
        peer[{a, apid}] = b;
        peer[{b, apid}] = a;
    }
    for (const auto &[key, far] : peer) {
        auto [d, apid] = key;
        auto &out = views[d].records;
        std::string list = fmt("index { apid: %d }", apid);
        for (int l = 1; l <= links; ++l) {
            out.push_back(rec(3, "p_dev.vsl_local_link",
                              fmt("index { devid: %d slotid: %d lport: %d } status: 1 vsl_ap: %d "
                                  "peer_dev_id: %d peer_slot_id: %d peer_lport: %d",
                                  d, apid, l, apid, far, apid, l)));
            list += fmt(" member { devid: %d slot: %d lport: %d }", d, apid, l);
        }
        out.push_back(rec(14, "u_cluster.vsl_ap_member", list));
        std::string choice = fmt("index { t_cfg_modid: %d apid: %d }", modid(d, apid), apid);
        out.push_back(rec(14, "u_cluster.mainmc_vlan",
                          choice + fmt(" local_vsl { devid: %d slot: %d lport: 1 } peer_vsl { "
                                       "devid: %d slot: %d lport: 1 }",
                                       d, apid, far, apid)));
        out.push_back(rec(14, "u_cluster.mainmc_vlan_st", choice));
    }
    for (auto &[d, v] : views) {
        int n = 0;
        for (int other : order) {
            for (int slot = 3; slot <= 2 + modids && other != d; ++slot, ++n) {
                int apid = peer.count({d, 1 + n % 2}) ? 1 + n % 2 : 2 - n % 2;
                u_cluster::kel_uc_balance b;  // thousands: built, not parsed
                b.mutable_index()->set_modid(modid(other, slot));
                b.set_local_modid(modid(d, apid));
                b.set_apid(apid);
                b.set_lport(1 + n / 2 % links);
                v.records.push_back({.db = 14,
                                     .type = "u_cluster.kel_uc_balance",
                                     .packed = b.SerializeAsString()});
            }
        }
        v.records.insert(v.records.end(), shared.begin(), shared.end());
    }
    std::vector<MemberView> out;
    for (auto &[d, v] : views) out.push_back(std::move(v));
    return out;
}

// Replaces (or adds) the record of `type` whose short text contains `key`;
// an empty `text` only removes it.
void put(MemberView &v, int db, const std::string &type, const std::string &key,
         const std::string &text) {
    auto same = [&](const platform::Record &r) {
        if (r.db != db || r.type != type) return false;
        return host::short_text(*host::unpack_record(host::record_type(type), r.packed))
                   .find(key) != std::string::npos;
    };
    v.records.erase(std::remove_if(v.records.begin(), v.records.end(), same), v.records.end());
    if (!text.empty()) v.records.push_back(rec(db, type, text));
}

MemberView &member(std::vector<MemberView> &views, uint32_t devid) {
    return *std::find_if(views.begin(), views.end(), [&](auto &v) { return v.devid == devid; });
}

// A ring of 4 wired 1-3-2-4 with 2 links per hop, and what goes wrong in it:
// member 2 stopped (its state still says "forward"), member 3 not known; link
// 1/1/2-3/1/2 down and out of both member lists, but still in both balances;
// 2/1/2 up while 4/1/2 says down; hop 4-1 down at both ends, member 1 has
// caught up, member 4 still lists both ports and its main multicast on 4/2/1
// is still confirmed; a confirmation left over at member 1.
std::vector<MemberView> troubled_ring() {
    auto views = unit({1, 3, 2, 4}, true, 2, 2);
    auto link = [&](int dev, int slot, int lport, int up, int peer) {
        auto port = fmt("devid: %d slotid: %d lport: %d", dev, slot, lport);
        put(member(views, dev), 3, "p_dev.vsl_local_link", port,
            fmt("index { %s } status: %d vsl_ap: %d peer_dev_id: %d peer_slot_id: %d "
                "peer_lport: %d",
                port.c_str(), up, slot, peer, slot, lport));
    };
    member(views, 2).process = ProcessState::stopped;
    member(views, 3).process = ProcessState::unknown;
    for (auto [dev, peer] : {std::pair{1, 3}, std::pair{3, 1}}) {
        link(dev, 1, 2, 0, peer);
        put(member(views, dev), 14, "u_cluster.vsl_ap_member", "apid: 1",
            fmt("index { apid: 1 } member { devid: %d slot: 1 lport: 1 }", dev));
    }
    link(4, 1, 2, 0, 2);
    for (int lport : {1, 2}) {
        link(1, 2, lport, 0, 4);
        link(4, 2, lport, 0, 1);
    }
    MemberView &one = member(views, 1);
    put(one, 14, "u_cluster.vsl_ap_member", "apid: 2", "index { apid: 2 }");
    put(one, 14, "u_cluster.mainmc_vlan", "apid: 2", "");
    put(one, 14, "u_cluster.mainmc_vlan_st", "apid: 2", "");
    put(one, 14, "u_cluster.mainmc_vlan_st", "t_cfg_modid: 99",
        "index { t_cfg_modid: 99 apid: 1 }");
    return views;
}

// Only member 2 of a chain 1-2-3 is read; members 5 and 6 own chips only.
// Member 2's records also hold a link in apid 7, a link of another device's
// port, and a record that does not decode.
std::vector<MemberView> one_of_a_chain() {
    auto views = unit({1, 2, 3}, false, 1, 1);
    MemberView two = member(views, 2);
    two.process = ProcessState::unknown;
    for (int dev : {2, 8}) {
        put(two, 3, "p_dev.vsl_local_link", fmt("devid: %d slotid: 7", dev),
            fmt("index { devid: %d slotid: 7 lport: 1 } status: 1 vsl_ap: 7 peer_dev_id: 3 "
                "peer_slot_id: 7 peer_lport: %d",
                dev, dev));
    }
    two.records.push_back({.db = 14, .type = "u_cluster.kel_uc_balance", .packed = "\xff\xff"});
    for (int d : {5, 6}) {
        put(two, 0, "s_intf.evt_mod_alloc", "devid: " + std::to_string(d),
            "index { devid: " + std::to_string(d) + " slotid: 1 } modid: " + std::to_string(d));
    }
    return {two};
}

void keep(const std::string &name, const std::string &text) {
    if (const char *dir = std::getenv("DPM_PICTURE_OUT")) {
        fs::create_directories(dir);
        std::ofstream(fs::path(dir) / name, std::ios::binary) << text;
    }
}

TEST(Picture, SmallUnitsGiveTheirGoldenTextInAnyOrder) {
    struct Case {
        const char *golden;
        std::vector<MemberView> views;
        host::PictureOptions options;
        std::vector<std::string> shows;  // a few things a reader looks for
    } cases[] = {
        {"picture_ring_folded.dot",
         troubled_ring(),
         {"ring of 4", false},
         {"{ rank=same; \"member 3\"; \"member 4\";", "{ rank=same; \"member 2\"; }",
          "2 links: 1 up, 1 down<br/>1 in member list", "2 links: 2 down<br/>0 in member list",
          "forwarding state &quot;forward&quot; is stale: the process is stopped",
          "main multicast confirmed, but 4/2/1 is down", "up at 2/1/2, down at 4/1/2",
          "unicast of 1 module id on a port not in the member list",
          "confirmation of chip 99 is not the current request (chip 1)",
          "process not known, record: forward"}},
        {"picture_ring_links.dot",
         troubled_ring(),
         {"", true},
         {"\"member 1\":p1_1_0_1 -> \"member 3\":p3_1_0_1 [color=\"#1b7837\"]"}},
        {"picture_chain_one_member.dot",
         one_of_a_chain(),
         {"member 2 alone", false},
         {"its records not read", "\"members 5-6\"", "1 record does not decode (left out)",
          "apid 7: 2 ports in an aggregate port that does not exist"}},
    };
    for (auto &c : cases) {
        std::string dot = host::unit_dot(c.views, c.options);
        keep(c.golden, dot);
        EXPECT_EQ(dot, dpm_test::golden(c.golden)) << c.golden;
        for (const auto &s : c.shows) EXPECT_NE(dot.find(s), std::string::npos) << s;
        std::reverse(c.views.begin(), c.views.end());
        for (auto &v : c.views) std::reverse(v.records.begin(), v.records.end());
        EXPECT_EQ(host::unit_dot(c.views, c.options), dot) << c.golden;
    }
}

// Graphviz's default resolution is 96 dpi for PNG; the width is in the header.
uint32_t png_width(const fs::path &png) {
    std::ifstream in(png, std::ios::binary);
    unsigned char h[24] = {};
    in.read(reinterpret_cast<char *>(h), sizeof h);
    return (uint32_t{h[16]} << 24) | (uint32_t{h[17]} << 16) | (uint32_t{h[18]} << 8) | h[19];
}

TEST(Picture, RingOfEightWithSixteenLinksPerHopFitsAPage) {
    std::string dot = host::unit_dot(unit({1, 2, 3, 4, 5, 6, 7, 8}, true, 16, 250),
                                     host::PictureOptions{"ring of 8, 16 links per hop", false});
    keep("ring8x16.dot", dot);
    EXPECT_NE(dot.find("16 links: 16 up<br/>16 in member list"), std::string::npos);
    auto dir = fs::temp_directory_path() / ("dpm-picture-" + std::to_string(getpid()));
    fs::create_directories(dir);
    try {
        host::write_picture(dot, (dir / "ring.png").string());
    } catch (const host::ScriptError &e) {
        fs::remove_all(dir);
        GTEST_SKIP() << e.what();
    }
    EXPECT_LE(png_width(dir / "ring.png"), 2000u);
    EXPECT_GT(png_width(dir / "ring.png"), 400u);
    if (const char *keep_dir = std::getenv("DPM_PICTURE_OUT")) {
        fs::copy_file(dir / "ring.png", fs::path(keep_dir) / "ring8x16.png",
                      fs::copy_options::overwrite_existing);
    }
    EXPECT_THROW(host::write_picture(dot, (dir / "ring.jpg").string()), host::ScriptError);
    EXPECT_THROW(host::write_picture("digraph {", (dir / "bad.png").string()), host::ScriptError);
    EXPECT_FALSE(fs::exists(dir / "bad.png"));
    fs::remove_all(dir);
}

}  // namespace
