#!/usr/bin/env bash
# Three members in a chain (1 =apid 1= 2 =apid 2= 3), described once in
# scenarios/units/three_members.yaml and played by dpm-unit: a private
# redis-server, a dpm-host per member, the hardware responder and the topology
# producer; the unit comes up, a link fails, a card fails, member 2 leaves and
# comes back after missing changes. After each phase the unit-wide check must
# hold (waited for, bounded) and the whole unit is drawn into $PICTURES
# (default build/three-members-pictures). Exit 0 only when every phase holds.
#
#   scripts/run-three-members.sh [dpm-unit run options]   (BUILD=DIR for another build tree)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build/default}
if [ ! -x "$build/host/unit/dpm-unit" ]; then
  "$root/scripts/setup.sh"
  (cd "$root" && cmake --preset default >/dev/null &&
     cmake --build --preset default --target dpm-unit dpm-host)
fi
exec "$build/host/unit/dpm-unit" run "$root/scenarios/units/three_members.yaml" --once \
  --pictures "${PICTURES:-$root/build/three-members-pictures}" "$@"
