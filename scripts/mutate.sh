#!/usr/bin/env bash
# Mutation testing of the module: applies each mutant of scripts/mutants.txt
# to its source under app/proc/kel/udp_dpm_topo/, rebuilds incrementally, runs
# ctest, restores the file, and reports which tests killed which mutant.
#
#   scripts/mutate.sh [--only N-M|N] [--tests REGEX] [--build DIR] [--fresh] [--report]
#
#   --only     run only these mutants (numbers as in the list, 1-based)
#   --tests    pass -R REGEX to ctest (a subset of tests: quicker, partial kills)
#   --build    build directory (default build/mutate, configured when missing)
#   --fresh    forget earlier results; without it a run resumes, skipping
#              mutants whose result is already recorded
#   --report   only print the summary of the recorded results
#
# Results go to DIR/mutate/results.tsv (number, outcome, killing tests); the
# summary gives the kill rate overall, per test layer (ctest labels module,
# scenario, oracle) and per test file, the survivors, and apart from those the
# mutants that do not apply or do not compile. Run it niced on a shared machine.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
list=scripts/mutants.txt
src=app/proc/kel/udp_dpm_topo
build=build/mutate
only=""
tests=""
fresh=0
report_only=0
while (($#)); do
  case $1 in
    --only) only=$2; shift 2 ;;
    --tests) tests=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --fresh) fresh=1; shift ;;
    --report) report_only=1; shift ;;
    *) echo "usage: $0 [--only N-M] [--tests REGEX] [--build DIR] [--fresh] [--report]" >&2; exit 2 ;;
  esac
done
out=$build/mutate
results=$out/results.tsv
mkdir -p "$out"
((fresh)) && rm -f "$results"
touch "$results"

report() {
  python3 scripts/mutate_report.py "$list" "$results" "$out/tests.json" "$root"
}
if ((report_only)); then report; exit 0; fi

if [[ ! -f $build/build.ninja ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDPM_BENCH=OFF >/dev/null
fi
cmake --build "$build" >"$out/build.log" 2>&1 || { cat "$out/build.log"; exit 1; }
ctest_args=(--test-dir "$build" -j2 --timeout 120)
[[ -n $tests ]] && ctest_args+=(-R "$tests")
# The unmutated module must pass, or every failure would count as a kill.
if ! ctest "${ctest_args[@]}" >"$out/clean.log" 2>&1; then
  echo "the unmutated build fails its tests; see $out/clean.log" >&2
  exit 1
fi
ctest --test-dir "$build" --show-only=json-v1 >"$out/tests.json"

lo=1
hi=$(grep -cv '^#' "$list")
if [[ -n $only ]]; then
  lo=${only%-*}
  hi=${only#*-}
fi

backup=""
target=""
restore() {
  if [[ -n $backup ]]; then
    cp "$backup" "$target"
    touch "$target"
    rm -f "$backup"
    backup=""
  fi
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

n=0
while IFS= read -r -u 3 line; do
  [[ $line == \#* || -z $line ]] && continue
  # Tabs are IFS white space, which read would merge: split by hand so that an
  # empty replacement stays a field.
  file=${line%%$'\t'*}
  desc=${line##*$'\t'}
  n=$((n + 1))
  ((n < lo || n > hi)) && continue
  grep -q "^$n"$'\t' "$results" && continue
  target=$src/$file
  backup=$out/backup.cpp
  cp "$target" "$backup"
  if ! python3 - "$target" "$line" <<'EOF'; then
import sys
path = sys.argv[1]
_, occ, orig, repl, _ = sys.argv[2].split("\t")
occ = int(occ)
text = open(path).read()
at = -1
for _ in range(occ):
    at = text.find(orig, at + 1)
    if at < 0:
        sys.exit(1)
open(path, "w").write(text[:at] + repl + text[at + len(orig):])
EOF
    printf '%s\tnoapply\t\n' "$n" >>"$results"
    echo "mutant $n ($file: $desc): does not apply"
    restore
    continue
  fi
  if ! cmake --build "$build" >"$out/build.log" 2>&1; then
    printf '%s\tnocompile\t\n' "$n" >>"$results"
    echo "mutant $n ($file: $desc): does not compile"
    restore
    continue
  fi
  rm -f "$out/junit.xml"
  ctest "${ctest_args[@]}" --output-junit "$root/$out/junit.xml" >"$out/ctest.log" 2>&1 || true
  killers=$(python3 - "$out/junit.xml" <<'EOF'
import sys
import xml.etree.ElementTree as ET
try:
    cases = ET.parse(sys.argv[1]).getroot().iter("testcase")
except (OSError, ET.ParseError):
    print("?ctest-no-report")
    sys.exit(0)
print(" ".join(c.get("name") for c in cases if c.get("status") not in ("run", "disabled", "notrun")))
EOF
)
  if [[ -n $killers ]]; then
    printf '%s\tkilled\t%s\n' "$n" "$killers" >>"$results"
    echo "mutant $n ($file: $desc): killed by $(wc -w <<<"$killers") tests"
  else
    printf '%s\tsurvived\t\n' "$n" >>"$results"
    echo "mutant $n ($file: $desc): SURVIVED"
  fi
  restore
done 3<"$list"
trap - EXIT
# Leave the build matching the restored sources.
cmake --build "$build" >"$out/build.log" 2>&1 || true
report
