#!/usr/bin/env bash
# Every test: layout and static checks, the plain build with its tests, the
# sanitizer build (ASan+UBSan) with the same tests, and a bounded run of the
# fuzzers (clang, libFuzzer).
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

FUZZ_JOBS=$jobs scripts/fuzz.sh 30
