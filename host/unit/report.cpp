// Convergence figures (report.h).
#include "report.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace unit {

double quantile(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    auto rank = static_cast<size_t>(std::ceil(q * static_cast<double>(v.size())));
    return v[std::min(v.size() - 1, rank == 0 ? 0 : rank - 1)];
}

std::string Report::line(const Settled &s) {
    std::ostringstream os;
    os << std::fixed << std::setprecision(1);
    if (s.held) {
        os << "converged in " << s.converge_ms << " ms (check held after " << s.verified_ms
           << " ms)";
    } else {
        os << "NOT converged: " << s.violations.size() << " violation"
           << (s.violations.size() == 1 ? "" : "s") << " after " << s.verified_ms << " ms";
    }
    return os.str();
}

void Report::add(const std::string &kind, const std::string &change, const Settled &s) {
    times_[kind];
    if (s.held) {
        times_[kind].push_back(s.converge_ms);
        return;
    }
    ++failed_[kind];
    ++unsettled_;
    violation_count_ += s.violations.size();
    std::string text = "after " + change + ":\n";
    for (const auto &v : s.violations) text += "  " + violation_text(v);
    violation_texts_.push_back(text);
}

std::string Report::text() const {
    std::ostringstream os;
    os << std::fixed << std::setprecision(1);
    os << std::left << std::setw(20) << "change" << std::right << std::setw(6) << "count"
       << std::setw(12) << "median ms" << std::setw(10) << "p99 ms" << std::setw(10) << "max ms"
       << std::setw(14) << "not settled"
       << "\n";
    for (const auto &[kind, t] : times_) {
        auto f = failed_.find(kind);
        os << std::left << std::setw(20) << kind << std::right << std::setw(6)
           << t.size() + (f == failed_.end() ? 0 : f->second) << std::setw(12) << quantile(t, 0.5)
           << std::setw(10) << quantile(t, 0.99) << std::setw(10) << quantile(t, 1.0)
           << std::setw(14) << (f == failed_.end() ? 0 : f->second) << "\n";
    }
    os << "violations: " << violation_count_ << "\n";
    for (const auto &v : violation_texts_) os << v;
    return os.str();
}

}  // namespace unit
