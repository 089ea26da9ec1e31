// Convergence figures of a run: per kind of change (a phase of dpm-unit run, a
// fault kind of chaos) the convergence times with their median, 99th
// percentile and maximum, and every violation with the change that caused it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "supervisor.h"

namespace unit {

class Report {
  public:
    void add(const std::string &kind, const std::string &change, const Settled &s);
    std::string text() const;
    size_t violations() const { return violation_count_; }
    size_t unsettled() const { return unsettled_; }

    // One line for one change: "converged in 4.1 ms (check held after 52 ms)".
    static std::string line(const Settled &s);

  private:
    std::map<std::string, std::vector<double>> times_;
    std::map<std::string, size_t> failed_;
    std::vector<std::string> violation_texts_;
    size_t violation_count_ = 0;
    size_t unsettled_ = 0;
};

// The q-quantile (0..1) of `v` by the nearest rank; 0 for none.
double quantile(std::vector<double> v, double q);

}  // namespace unit
