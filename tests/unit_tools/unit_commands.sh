#!/usr/bin/env bash
# The commands against a running unit: dpm-unit run keeps it up; check holds
# and draws; a confirmation deleted behind the unit's back is a violation the
# check names; SIGTERM stops every process the run started.
#   unit_commands.sh DPM-UNIT UNITFILE
set -euo pipefail
unit=$1 file=$2
host=$(dirname "$unit")/../dpm-host
. "$(dirname "$0")/lib.sh"
fail() { echo "FAILED: $*"; cat "$dir/out"; exit 1; }
"$unit" run "$file" --dir "$dir/unit" --timeout 60 >"$dir/out" 2>&1 &
pid=$!
for _ in $(seq 1200); do  # until it has played its phases (at most 120 s)
  grep -q "Ctrl-C stops it" "$dir/out" && break
  kill -0 "$pid" 2>/dev/null || fail "dpm-unit run ended"
  sleep 0.1
done
grep -q "Ctrl-C stops it" "$dir/out" || fail "the unit did not come up"
"$unit" check --dir "$dir/unit" >"$dir/check" || fail "check: $(cat "$dir/check")"
grep -q "member 1 running; member 2 running; the check holds" "$dir/check" || fail "$(cat "$dir/check")"
"$unit" picture "$dir/unit.dot" --dir "$dir/unit" >/dev/null
grep -q "member 2</b></font>  running, forward<" "$dir/unit.dot" || fail "the picture does not show member 2 running and forwarding"
# The hardware side's confirmation of member 1's request on apid 1 vanishes.
printf 'member 1\ndb del TOPO_DB u_cluster.mainmc_vlan_st { index { t_cfg_modid: 1 apid: 1 } }\n' \
  >"$dir/break.dpm"
"$host" --redis "unix:$dir/unit/redis.sock" "$dir/break.dpm" >/dev/null
rc=0
"$unit" check --dir "$dir/unit" >"$dir/check" || rc=$?
[ "$rc" = 1 ] || fail "check after the deletion exited with $rc: $(cat "$dir/check")"
grep -q "member 1: mmc: the main multicast request of aggregate port 1 is not confirmed" \
  "$dir/check" || fail "$(cat "$dir/check")"
kill -TERM "$pid"
rc=0
wait "$pid" || rc=$?
pid=
[ "$rc" = 0 ] || fail "dpm-unit run exited with $rc after SIGTERM"
for p in "member 1" "member 2" "responder" "redis-server"; do
  grep -q "] $p (pid [0-9]*) exited with status 0" "$dir/out" || fail "$p was not stopped"
done
if pgrep -f "$dir/unit" >/dev/null; then fail "processes of the unit are left: $(pgrep -af "$dir/unit")"; fi
