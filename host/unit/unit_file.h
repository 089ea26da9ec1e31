// A unit described once: the members with their cards, chips and module ids,
// the VSL links with both ends, and optionally the phases of a run (faults),
// read from a YAML file that people write. Topology maps are not in it: the
// topology producer computes them from the links in the databases.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace unit {

// A unit file that cannot be used: "FILE:LINE: what is wrong".
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Card {
    int member = 0, slot = 0, sslot = 0;
    int node_type = 3;           // p_dev.dm_node_type_e of the card's chips (LC)
    std::vector<int> modids;     // by chip unit
    bool has_vsl_ports = false;  // some link ends on it
};

struct Member {
    int id = 0;
    int node_type = 1;  // BOX
    int ring_cut = 0;   // 0: p_dev.dtm_route_info, 1: p_dev.dtm_fiap_route_info
    int role = 0;       // p_dev.dm_role_e; 0: no role record
    std::vector<Card> cards;
};

// One end of a VSL link: member/slot/sub-slot/port, in the member's aggregate
// port `apid`.
struct End {
    int member = 0, slot = 0, sslot = 0, port = 0;
    int apid = 0;
    bool operator==(const End &o) const {
        return member == o.member && slot == o.slot && sslot == o.sslot && port == o.port;
    }
};

struct Link {
    End a, b;
};

// A fault or a change of a run, as written in the file ("link down 1/1/0/2").
struct Fault {
    enum Kind {
        LinkDown,
        LinkUp,
        CardOut,
        CardIn,
        HopDown,
        HopUp,
        MemberRestart,  // killed; the supervisor starts it again at once
        MemberStop,     // stopped: the member leaves the unit until it starts
        MemberStart,
        ResponderRestart,
        RedisKill,  // the server drops every connection of the unit's processes
    } kind;
    End port;        // link faults: one end of the link
    Card card;       // card faults: member, slot, sslot
    int member = 0;  // member faults; hop faults: one end
    int other = 0;   // hop faults: the other end
    std::string text;
};

struct Phase {
    std::string name;
    std::vector<Fault> faults;
};

struct Unit {
    std::string name;
    std::vector<Member> members;
    std::vector<Link> links;
    std::vector<Phase> phases;

    const Member *member(int id) const;
    const Card *card(int member, int slot, int sslot) const;
    // The module id of the chip that carries a port (the card's first chip).
    int chip_of(const End &e) const;
    // The global physical id the device-data library gives a port.
    static uint32_t phy_of(const End &e);
    // The link one of whose ends is `e`, or null.
    const Link *link_at(const End &e) const;
};

// Read a unit file. FileError names the file and line of the first problem.
Unit load_unit(const std::string &path);
// The same from text (`name` stands for the file in messages).
Unit parse_unit(const std::string &text, const std::string &name);
// "link down 1/1/0/2" and the other faults; FileError without a place.
Fault parse_fault(const Unit &u, const std::string &text);

// "M/S/SS/P" and "M/S/SS".
std::string end_text(const End &e);
std::string card_text(const Card &c);

}  // namespace unit
