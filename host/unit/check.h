// The unit-wide check: judges a whole unit from its records alone. Each rule
// says what the records of a converged unit must satisfy; every breach is a
// violation that names the member, the rule and the records involved.
//
// Rules, for every member in the unit (a stopped member has left it):
//   map        its topology map is what the producer computes from the links
//              that are up at both ends (a member alone keeps its last map)
//   members    each aggregate port's member list holds exactly the member's
//              ports whose link is up and whose chips at both ends forward
//   both-ends  a link that is up at both ends is in the member lists at both
//              ends or at neither; an aggregate port leads to one member
//   placement  every module id of another member that the map routes
//              through an aggregate port with ports is placed on exactly one
//              of that port's links (the right chips at both ends); no other
//              module id is placed; loads of one aggregate port differ by at
//              most one (main boards carry none)
//   filters    ingress permits and egress blocks are what the map implies:
//              permit on apid a the sources whose multicast comes in on a;
//              block on a every used member's module ids except the sources
//              whose multicast goes out on a
//   multicast  a source's multicast, sent over each confirmed main multicast
//              port, passed on by every member whose egress filter lets it
//              out and taken in by every member whose ingress filter permits
//              it, reaches every member of its part of the unit exactly once:
//              the filters of the members along each path agree
//   mmc        an aggregate port with ports has one main multicast request on
//              a chip of its ports; every request is confirmed and every
//              confirmation answers a request
//   forwarding a member with ports in use says "forward" in UDP_DB
#pragma once

#include <string>
#include <vector>

#include "unit_records.h"

namespace unit {

struct Violation {
    int member = 0;  // 0: the unit
    std::string rule;
    std::string text;
    std::vector<std::string> records;
};

std::vector<Violation> check_unit(const UnitRecords &u);
// "member 2: placement: ..." followed by the records, indented.
std::string violation_text(const Violation &v);

}  // namespace unit
