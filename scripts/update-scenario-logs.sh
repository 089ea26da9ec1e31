#!/usr/bin/env bash
# Writes the kept logs of the scenarios (tests/scenarios/logs/NAME.log) again
# from the current build, after a deliberate change of the module's messages;
# `git diff tests/scenarios/logs` then shows what an operator will read
# differently. Only scripts that already have a kept log, or those named.
#
#   scripts/update-scenario-logs.sh [BUILD_DIR] [SCRIPT...]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
shift || true
logs=tests/scenarios/logs
scripts=("$@")
if ((${#scripts[@]} == 0)); then
  for kept in "$logs"/*.log; do
    name=$(basename "$kept" .log)
    scripts+=($(ls tests/scenarios/"$name".dpm scenarios/"$name".dpm 2>/dev/null))
  done
fi
mkdir -p "$logs"
for script in "${scripts[@]}"; do
  first=$(head -1 "$script")
  expect=0
  [[ $first =~ ^#\ exit:\ ([0-9]+) ]] && expect=${BASH_REMATCH[1]}
  cmake -DHOST="$build/host/dpm-host" -DSCRIPT="$PWD/$script" -DEXPECT="$expect" \
    -DLOGS="$PWD/$logs" -DUPDATE_LOGS=ON -P tests/run_scenario.cmake
  echo "$logs/$(basename "$script" .dpm).log"
done
