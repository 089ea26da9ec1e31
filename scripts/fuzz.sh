#!/usr/bin/env bash
# Build the libFuzzer targets with clang (ASan + UBSan + coverage) and run each
# for a bounded time from the seed corpus in tests/fuzz/corpus.
#
#   scripts/fuzz.sh [SECONDS_PER_FUZZER]   (default 30; CI: scripts/fuzz.sh 30)
#
# Exits non-zero when a fuzzer finds a crash, a sanitizer report or an oracle
# difference; the failing input is left in build/fuzz/artifacts/ and should
# become a regression test (tests/fuzz/regressions/, replayed by
# test_fuzz_replay) before the fault is fixed. New corpus entries found during
# the run go to build/fuzz/corpus-*/ (the seed corpus in the tree is never
# written).
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-30}
# A fixed seed keeps a CI run reproducible; FUZZ_SEED=0 lets libFuzzer pick.
seed=${FUZZ_SEED:-1}
build=build/fuzz
jobs=${FUZZ_JOBS:-2}

if [[ ! -f $build/build.ninja ]]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDPM_FUZZ=ON -DDPM_SANITIZE=ON -DDPM_BENCH=OFF \
    -DCMAKE_C_FLAGS="-fsanitize=fuzzer-no-link" -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link" \
    >/dev/null
fi
cmake --build "$build" -j "$jobs" --target fuzz_events fuzz_records

mkdir -p "$build/artifacts"
# The module never frees its process-wide caches and each restart leaves the
# old instance's behind: leak detection would report those, not faults.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for f in events records; do
  corpus="$build/corpus-$f"
  mkdir -p "$corpus"
  echo "== fuzz_$f: ${secs}s"
  if ! "$build/tests/fuzz/fuzz_$f" "$corpus" "tests/fuzz/corpus/$f" \
      -max_total_time="$secs" -seed="$seed" -detect_leaks=0 -max_len=4096 -timeout=20 \
      -artifact_prefix="$build/artifacts/$f-" -print_final_stats=1 2>"$build/fuzz_$f.log"; then
    status=1
    echo "fuzz_$f FAILED; see $build/fuzz_$f.log and $build/artifacts/"
    grep -A40 -E "ERROR|oracle found|runtime error|undecodable|refused" "$build/fuzz_$f.log" | head -60 || true
  else
    grep -E "stat::number_of_executed_units|stat::peak_rss_mb|cov:" "$build/fuzz_$f.log" | tail -3 || true
  fi
done
exit "$status"
