#!/usr/bin/env bash
# The main job: build and play the two-member unit scenario.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
pictures=build/main-job-pictures
echo "pictures of each phase: $PWD/$pictures"
exec build/default/host/dpm-host --pictures "$pictures" scenarios/two_member_unit.dpm
