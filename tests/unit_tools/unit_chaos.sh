#!/usr/bin/env bash
# Chaos on a small unit, a bounded number of faults from a fixed seed, twice:
# the check holds after every change, and the same seed makes the same faults.
#   unit_chaos.sh DPM-UNIT UNITFILE
set -euo pipefail
unit=$1 file=$2
. "$(dirname "$0")/lib.sh"
for run in 1 2; do
  "$unit" chaos "$file" --seconds 300 --seed 7 --faults 6 --timeout 60 \
    --dir "$dir/unit$run" >"$dir/out$run" 2>&1 &
  pid=$!
  rc=0
  wait "$pid" || rc=$?
  pid=
  cat "$dir/out$run"
  [ "$rc" = 0 ] || { echo "FAILED: chaos run $run exited with $rc"; exit 1; }
  grep -q "^violations: 0$" "$dir/out$run" || { echo "FAILED: violations"; exit 1; }
  # The changes in order, without their times.
  sed -n 's/^\[ *[0-9.]* s\] \([^:]*\):.*/\1/p' "$dir/out$run" >"$dir/faults$run"
done
[ "$(wc -l <"$dir/faults1")" -ge 6 ] || { echo "FAILED: too few changes"; exit 1; }
diff "$dir/faults1" "$dir/faults2" || { echo "FAILED: the same seed made other faults"; exit 1; }
