// Chaos: random faults on a running unit, drawn from a seed, each followed by
// its repair; after every change the unit must settle (the check holds,
// waited for, bounded). The same seed and unit give the same faults in the
// same order.
#pragma once

#include <cstdint>
#include <ostream>
#include <set>
#include <string>

#include "report.h"
#include "supervisor.h"

namespace unit {

struct ChaosOptions {
    double seconds = 60;
    uint64_t seed = 1;
    int max_faults = 0;  // 0: no bound but time
    // link, card, member, responder, hop, redis
    std::set<std::string> kinds = {"link", "card", "member", "responder", "hop", "redis"};
};

// The known kinds, for the command line.
const std::set<std::string> &chaos_kinds();

// Runs on a started supervisor; returns the report of every change.
Report run_chaos(Supervisor &s, const Unit &u, const ChaosOptions &o, std::ostream &out);

}  // namespace unit
