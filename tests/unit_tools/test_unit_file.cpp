// Unit files: what a good file describes, and every kind of mistake refused
// with the line that holds it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "processes.h"
#include "unit_file.h"

namespace {

using unit::FileError;
using unit::parse_unit;

const char *const kGood = R"(name: pair
members:
  - id: 1
    role: master
    cards:
      - {slot: 1, modids: [1]}
      - {slot: 3, sslot: 1, type: MB, modids: [10-12, 20]}
  - id: 2
    ring_cut: 1
    node_type: DM_TYPE_BOX
    cards:
      - {slot: 1, modids: [2]}
links:
  - {a: 1/1/0/1, b: 2/1/0/5, apid: [1, 2], count: 3}
phases:
  - name: a link fails
    do: [link down 2/1/0/6, hop down 1 2, card out 1/3/1, member restart 2, responder restart]
)";

TEST(UnitFile, DescribesMembersCardsLinksAndPhases) {
    unit::Unit u = parse_unit(kGood, "pair.yaml");
    EXPECT_EQ(u.name, "pair");
    ASSERT_EQ(u.members.size(), 2U);
    EXPECT_EQ(u.members[0].role, 1);
    EXPECT_EQ(u.members[1].ring_cut, 1);
    const unit::Card *mb = u.card(1, 3, 1);
    ASSERT_NE(mb, nullptr);
    EXPECT_EQ(mb->node_type, 2);
    EXPECT_EQ(mb->modids, (std::vector<int>{10, 11, 12, 20}));
    EXPECT_FALSE(mb->has_vsl_ports);
    EXPECT_TRUE(u.card(2, 1, 0)->has_vsl_ports);
    // count 3: ports counted up at both ends, each end in its own apid.
    ASSERT_EQ(u.links.size(), 3U);
    EXPECT_EQ(unit::end_text(u.links[2].a), "1/1/0/3");
    EXPECT_EQ(unit::end_text(u.links[2].b), "2/1/0/7");
    EXPECT_EQ(u.links[2].b.apid, 2);
    EXPECT_EQ(u.chip_of(u.links[0].b), 2);
    ASSERT_EQ(u.phases.size(), 1U);
    ASSERT_EQ(u.phases[0].faults.size(), 5U);
    EXPECT_EQ(u.phases[0].faults[0].kind, unit::Fault::LinkDown);
    EXPECT_EQ(u.link_at(u.phases[0].faults[0].port), &u.links[1]);
    EXPECT_EQ(u.phases[0].faults[2].card.slot, 3);
}

TEST(UnitFile, RefusesMistakesWithTheirLine) {
    const std::string head =
        "members:\n  - id: 1\n    cards:\n      - {slot: 1, modids: [1]}\n"
        "  - id: 2\n    cards:\n      - {slot: 1, modids: [2]}\n";
    struct Row {
        std::string text, message;
    };
    const Row rows[] = {
        {"members:\n  - id: 1\n    card: []\n", "u.yaml:3: unknown key 'card' in a member"},
        {"members:\n  - id: 16\n    cards: []\n", "u.yaml:2: member id 16 is out of range 1..15"},
        {head + "  - id: 1\n    cards: []\n", "u.yaml:8: member 1 is described twice"},
        {head + "  - id: 3\n    cards:\n      - {slot: 1, modids: [3-5, 2]}\n",
         "u.yaml:10: module id 2 is given to two chips"},
        {head + "  - id: 3\n    cards:\n      - {slot: 1, modids: [9-x]}\n",
         "u.yaml:10: module id range '9-x' is not of the form A-B"},
        {head + "links:\n  - {a: 1/2/0/1, b: 2/1/0/1, apid: 1}\n",
         "u.yaml:9: link end 1/2/0/1: member 1 has no card in slot 2/0"},
        {head + "links:\n  - {a: 1/1/0/1, b: 1/1/0/2, apid: 1}\n",
         "u.yaml:9: a link joins two members, not member 1 to itself"},
        {head + "links:\n  - {a: 1/1/0/1, b: 2/1/0/1, apid: 1, count: 2}\n"
                "  - {a: 1/1/0/2, b: 2/1/0/9, apid: 1}\n",
         "u.yaml:10: port 1/1/0/2 is already the end of a link"},
        {head + "links:\n  - {a: 1/1/0/1, b: 2/1/0/1, apid: 3}\n",
         "u.yaml:9: apid 3 is out of range 1..2"},
        {head + "  - id: 3\n    cards:\n      - {slot: 1, modids: [3]}\nlinks:\n"
                "  - {a: 1/1/0/1, b: 2/1/0/1, apid: 1}\n  - {a: 1/1/0/2, b: 3/1/0/1, apid: 1}\n",
         "u.yaml:13: aggregate port 1 of member 1 already leads to member 2, not 3"},
        {head + "links:\n  - {a: 1/1/0/1, b: 2/1/0/1, apid: 1}\nphases:\n  - do:\n"
                "      - link down 1/1/0/7\n",
         "u.yaml:12: fault 'link down 1/1/0/7': no link ends at 1/1/0/7"},
        {head + "phases:\n  - do: [member reboot 1]\n", "u.yaml:9: fault 'member reboot 1'"},
        {"members:\n  - id: 1\n    cards: [\n", "u.yaml:4: "},
        {"members:\n  - id: [1]\n    cards: []\n", "u.yaml:2: member id must be a number"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        try {
            parse_unit(row.text, "u.yaml");
            ADD_FAILURE() << "accepted";
        } catch (const FileError &e) {
            EXPECT_EQ(std::string(e.what()).rfind(row.message, 0), 0U) << e.what();
        }
    }
}

// The unit's directory holds its server's socket: refused when others may
// enter it.
TEST(UnitFile, PrivateDirectoryIsTheUsersOwnAndClosed) {
    std::string dir = ::testing::TempDir() + "dpm-unit-private";
    std::filesystem::remove_all(dir);
    EXPECT_NO_THROW(unit::private_dir(dir));
    EXPECT_EQ(std::filesystem::status(dir).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_all);
    chmod(dir.c_str(), 0755);
    EXPECT_THROW(unit::private_dir(dir), std::runtime_error);
    std::filesystem::remove_all(dir);
}

}  // namespace
