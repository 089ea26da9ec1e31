// Every input of the event fuzzer's seed corpus and every input it once failed
// on (tests/fuzz/regressions/events-*) runs through the same driver and the
// oracle, in the ordinary test builds, so that a fault found by fuzzing stays
// found without a fuzzing build.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "stress_unit.h"

namespace dpm_stress {
namespace {

std::vector<std::filesystem::path> inputs() {
    namespace fs = std::filesystem;
    std::vector<fs::path> out;
    const fs::path root = fs::path(DPM_SOURCE_DIR) / "tests" / "fuzz";
    for (const fs::path &dir : {root / "corpus" / "events", root / "regressions"}) {
        if (!fs::exists(dir)) continue;
        for (const auto &e : fs::directory_iterator(dir)) {
            if (dir.filename() == "regressions" &&
                !e.path().filename().string().starts_with("events-"))
                continue;
            out.push_back(e.path());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

TEST(FuzzReplay, EventInputsKeepTheOracleClean) {
    OracleModule module(oracle_module_path());
    const auto files = inputs();
    ASSERT_FALSE(files.empty());
    for (const auto &f : files) {
        std::ifstream in(f, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        const std::string failure =
            run_event_input(module, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        EXPECT_EQ(failure, "") << f.filename();
    }
}

}  // namespace
}  // namespace dpm_stress
