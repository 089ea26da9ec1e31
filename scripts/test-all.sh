#!/usr/bin/env bash
# Every test: layout and static checks, the plain build with its tests, the
# sanitizer build (ASan+UBSan) with the same tests, a small sample of mutants,
# and a bounded run of the fuzzers (clang, libFuzzer).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)

cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
scripts/lint.sh build/default
ctest --preset default -j "$jobs"

cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

# A small fixed sample of generated mutants: a change that weakens the suite
# shows here at once (the full samples are run by hand, see the README). The
# rate leaves out the equivalent mutants of tests/mutation-triage.txt; every
# other mutant of this sample that compiles is killed now, the bound leaves
# room for one or two.
scripts/mutate.sh --sample 20 --seed 20 --build build/default --asan build/asan --fresh --min-rate 85

FUZZ_JOBS=$jobs scripts/fuzz.sh 30
