#!/usr/bin/env bash
# Resident memory of a serving member (dpm-host --serve --member 1) on Redis
# under link flaps and under writes of a type it does not watch.
#
#   bench/redis_memory.sh [FLAPS] [UNWATCHED]    (defaults 1000000 and 1000000)
#
# Member 1 of scenarios/three_members serves; a producer flaps its link
# 1/1/2 (down, up) FLAPS times in batches of 5000 flaps, waiting after each
# batch until the member has taken everything in; then it writes UNWATCHED
# records of a type the member does not watch. The member's VmRSS is printed
# after every tenth of each part. BUILD=DIR for another build tree.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
host=${BUILD:-$root/build/default}/host/dpm-host
unit=$root/scenarios/three_members
flaps=${1:-1000000} unwatched=${2:-1000000} batch=5000
dir=$(mktemp -d "${TMPDIR:-/tmp}/dpm-memory.XXXXXX")
sock=$dir/redis.sock
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$dir"' EXIT
trap 'exit 143' TERM INT
setpriv --pdeathsig KILL redis-server --port 0 --unixsocket "$sock" --unixsocketperm 700 --save '' \
  --appendonly no --dir "$dir" --logfile "$dir/redis.log" &
until redis-cli -s "$sock" ping 2>/dev/null | grep -q PONG; do sleep 0.05; done
cli() { redis-cli -s "$sock" "$@"; }
args=(--redis "unix:$sock" --redis-stream-max 10000000)
grep -v '^expect' "$unit/up.dpm" >"$dir/up.dpm"
"$host" "${args[@]}" "$dir/up.dpm" >/dev/null
setpriv --pdeathsig KILL "$host" "${args[@]}" --member 1 --log "$dir/module.log" --serve \
  "$unit/ports.dpm" "$unit/member.dpm" >"$dir/member.out" 2>&1 &
member=$!
settled() {
  local o
  until o=$(cli -n 15 get _member:1) && [ -n "$o" ] &&
    [ "$(cli -n 15 hget _readers "$o")" = "$(cli -n 15 get _events:n)" ]; do sleep 0.1; done
}
rss() { awk '/VmRSS/ {print $2}' "/proc/$member/status"; }
link='db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 2 } status: %d vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 2 }\n'
{ echo 'member 1'; for _ in $(seq $batch); do printf "$link$link" 0 1; done; } >"$dir/flaps.dpm"
for i in $(seq $batch); do
  echo "db set LOCAL_DB p_dev.card_static_info { index { type: $i } name: \"unwatched\" }"
done >"$dir/unwatched.dpm"
settled
echo "start: member VmRSS $(rss) kB"
run() {  # PART TOTAL SCRIPT
  local done=0 next=$(($2 / 10)) t0=$SECONDS
  while [ $done -lt "$2" ]; do
    "$host" "${args[@]}" "$3" >/dev/null
    settled
    done=$((done + batch))
    if [ $done -ge $next ]; then
      echo "$1 $done: member VmRSS $(rss) kB ($((SECONDS - t0)) s)"
      next=$((next + $2 / 10))
    fi
  done
}
run flaps "$flaps" "$dir/flaps.dpm"
run unwatched "$unwatched" "$dir/unwatched.dpm"
grep -q serving "$dir/member.out" && kill -0 "$member" || { cat "$dir/member.out"; exit 1; }
