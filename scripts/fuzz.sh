#!/usr/bin/env bash
# Build the libFuzzer targets with clang (ASan + UBSan + coverage) and run both
# side by side for a bounded time from the seed corpus in tests/fuzz/corpus.
#
#   scripts/fuzz.sh [SECONDS] [SEED]   (default 30 s, seed 1: the CI run;
#                                       SEED 0 lets libFuzzer pick; FUZZ_SEED
#                                       also sets it)
#   e.g. an hour: nice -n 19 scripts/fuzz.sh 3600 $RANDOM
#
# libFuzzer's default limits apply (-rss_limit_mb=2048). Its leak check after
# each input is off (it nearly halves the rate): the oracle checks the
# module's memory, leaks and dangling elements, after every event.
# Exits non-zero when a fuzzer finds a crash, a sanitizer report or an oracle
# difference; the failing input is left in build/fuzz/artifacts/ and
# becomes a regression input (tests/fuzz/regressions/, replayed by the
# oracle tests) before the fault is fixed. New corpus entries go to
# build/fuzz/corpus-*/ (the seed corpus in the tree is never written).
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-30}
seed=${2:-${FUZZ_SEED:-1}}
build=build/fuzz

if [[ ! -f $build/build.ninja ]]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDPM_FUZZ=ON -DDPM_SANITIZE=ON -DDPM_BENCH=OFF \
    -DCMAKE_C_FLAGS="-fsanitize=fuzzer-no-link" -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link" \
    >/dev/null
fi
cmake --build "$build" -j "${FUZZ_JOBS:-2}" --target fuzz_events fuzz_records

mkdir -p "$build/artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
names=(events records)
pids=()
for f in "${names[@]}"; do
  mkdir -p "$build/corpus-$f"
  echo "== fuzz_$f: ${secs}s, seed $seed"
  "$build/tests/fuzz/fuzz_$f" "$build/corpus-$f" "tests/fuzz/corpus/$f" \
    -max_total_time="$secs" -seed="$seed" -max_len=4096 -timeout=20 -detect_leaks=0 \
    -artifact_prefix="$build/artifacts/$f-" -print_final_stats=1 >"$build/fuzz_$f.log" 2>&1 &
  pids+=($!)
done
status=0
for i in 0 1; do
  f=${names[$i]}
  if ! wait "${pids[$i]}"; then
    status=1
    echo "fuzz_$f FAILED; see $build/fuzz_$f.log and $build/artifacts/"
    grep -A40 -E "ERROR|oracle found|runtime error|undecodable|refused" "$build/fuzz_$f.log" |
      head -60 || true
  fi
  echo "fuzz_$f: $(grep -E "stat::(number_of_executed_units|peak_rss_mb)" "$build/fuzz_$f.log" |
    tr -s ' \n' ' ')"
done
exit "$status"
