#!/usr/bin/env bash
# A unit of three members in a chain (1 =apid 1= 2 =apid 2= 3), each member a
# dpm-host process with its own module, on a private redis-server; the topology
# producer and the hardware side are processes too. Phases: the unit comes up,
# a link fails, a card fails, member 2 restarts (missing a change while away).
# After each phase every member must have converged (scenarios/three_members/check_*,
# waited for, bounded). Exit 0 only when every phase holds.
#
#   scripts/run-three-members.sh            (BUILD=DIR for another build tree)
# After each phase the whole unit is drawn into $PICTURES (default
# build/three-members-pictures), whose path the run prints.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build/default}
host=$build/host/dpm-host
unit=$root/scenarios/three_members
if [ ! -x "$host" ]; then
  "$root/scripts/setup.sh"
  (cd "$root" && cmake --preset default >/dev/null && cmake --build --preset default --target dpm-host)
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/dpm-unit.XXXXXX")
sock=$dir/redis.sock
pictures=${PICTURES:-$root/build/three-members-pictures}
mkdir -p "$pictures"
phase=0
echo "pictures: $pictures"
declare -A pids=()
# Every process started here dies with this script (--pdeathsig), and the
# traps end them also when it is stopped (ctest's timeout, Ctrl-C).
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  [ -n "${KEEP:-}" ] || rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 143' TERM INT

# The socket is the user's alone (0700, in a directory of its own).
setpriv --pdeathsig KILL redis-server --port 0 --unixsocket "$sock" --unixsocketperm 700 --save '' \
  --appendonly no --dir "$dir" --logfile "$dir/redis.log" &
pids[server]=$!
for _ in $(seq 200); do  # until it answers (at most 10 s)
  redis-cli -s "$sock" ping 2>/dev/null | grep -q PONG && break
  sleep 0.05
done
redis-cli -s "$sock" ping | grep -q PONG

start_member() {
  setpriv --pdeathsig KILL "$host" --redis "unix:$sock" --member "$1" --log "$dir/member$1.log" --serve \
    "$unit/ports.dpm" "$unit/member.dpm" >"$dir/member$1.out" 2>&1 &
  pids[m$1]=$!
}
stop_member() {
  kill "${pids[m$1]}"
  wait "${pids[m$1]}" || true
  unset "pids[m$1]"
}
# A script of the other components; fails the run when an expectation fails.
play() {
  echo "== $1"
  if ! "$host" --redis "unix:$sock" "$unit/$2" >"$dir/$2.out" 2>&1; then
    cat "$dir/$2.out"
    for m in 1 2 3; do echo "-- member $m:"; tail -n 20 "$dir/member$m.out" || true; done
    echo "FAILED: $1"
    exit 1
  fi
  # The whole unit as the databases say after the phase: every member and the
  # links between them.
  phase=$((phase + 1))
  printf 'picture members 1,2,3 %s/%02d-%s.svg %s\n' "$pictures" "$phase" "${2%.dpm}" "$1" \
    >"$dir/picture.dpm"
  "$host" --redis "unix:$sock" "$dir/picture.dpm" >/dev/null
}

# The inputs first, so that every member starts on the same stored state (the
# balance a member reaches depends on the order its events came in).
play "1. the unit comes up" up.dpm
for m in 1 2 3; do start_member "$m"; done
setpriv --pdeathsig KILL "$host" --redis "unix:$sock" --serve "$unit/responder.dpm" >"$dir/responder.out" 2>&1 &
pids[responder]=$!
play "   every member has converged" check_up.dpm
play "2. a link between members 1 and 2 fails" link_down.dpm
play "3. a card of member 3 fails" card_down.dpm
stop_member 2
play "4. while member 2 is down, the card and the link come back" while_away.dpm
start_member 2
play "   member 2 restarted: every member has converged again" check_restart.dpm
echo "unit converged in every phase"
