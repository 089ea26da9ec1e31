# Shared by the Redis fault tests: a private redis-server per run, dpm-host
# processes (members, the other components), conditions waited for (bounded,
# never a time), and a member's TOPO_DB as text to compare with a fault-free
# run. Everything a test starts dies with it: servers and members run under
# setpriv --pdeathsig KILL, and the traps end them on EXIT, TERM and INT.
# HOST: dpm-host; UNIT: scenarios/three_members (ports.dpm, member.dpm, up.dpm).
set -euo pipefail
host=${HOST:?HOST names dpm-host}
unit=${UNIT:?UNIT names scenarios/three_members}
dir=$(mktemp -d "${TMPDIR:-/tmp}/dpm-redis.XXXXXX")
children=()
end_children() {
  { for p in "${children[@]}"; do kill -CONT "$p"; kill -KILL "$p"; done; wait; } 2>/dev/null || true
  children=()
}
finish() {
  end_children
  [ -n "${KEEP:-}" ] || rm -rf "$dir"
}
trap finish EXIT
trap 'exit 143' TERM INT
fail() {
  echo "FAILED: $*"
  for f in "$dir"/*.out; do [ -f "$f" ] && { echo "-- $f"; tail -n 12 "$f"; }; done
  [ -z "${sock:-}" ] || echo "-- events $(cli -n 15 get _events:n 2>&1), read $(cli -n 15 hgetall _readers 2>&1 | tr '\n' ' '), applied $(cli -n 15 hgetall _applied 2>&1 | tr '\n' ' ')"
  exit 1
}
until_true() {  # CONDITION [SECONDS]: wait until it holds, at most SECONDS (10)
  local end=$((SECONDS + ${2:-10}))
  until eval "$1"; do
    [ $SECONDS -lt $end ] || fail "not within ${2:-10} s: $1"
    sleep 0.05
  done
}
# server [OPTION...]: a fresh private server on $dir/redis.sock (mode 0700);
# whatever the run before it started is ended first.
server() {
  end_children
  server_again "$@"
}
# server_again [OPTION...]: the server alone ends, and a new one (no data) starts
server_again() {
  [ -z "${server_pid:-}" ] || { kill -KILL "$server_pid"; wait "$server_pid"; } 2>/dev/null || true
  sock=$dir/redis.sock
  rm -f "$sock"
  setpriv --pdeathsig KILL redis-server --port 0 --unixsocket "$sock" --unixsocketperm 700 \
    --save '' --appendonly no --dir "$dir" --logfile "$dir/redis.log" "$@" &
  server_pid=$!
  children+=("$server_pid")
  until_true "redis-cli -s '$sock' ping 2>/dev/null | grep -qE 'PONG|NOAUTH'"
}
cli() { redis-cli -s "$sock" "$@"; }
# play LINE...: one script of the other components (any exit status but 0 fails)
play() {
  printf '%s\n' "$@" >"$dir/play.dpm"
  "$host" --redis "unix:$sock" ${HOST_ARGS:-} "$dir/play.dpm" >"$dir/play.out" 2>&1 ||
    fail "play $*"
}
# member N [OPTION...]: member N (pid in member_pid, output in memberN.out)
# started, once it holds its lease
member() {
  local n=$1
  shift
  setpriv --pdeathsig KILL "$host" --redis "unix:$sock" ${HOST_ARGS:-} "$@" --member "$n" \
    --log "$dir/module$n.log" --serve "$unit/ports.dpm" "$unit/member.dpm" >"$dir/member$n.out" 2>&1 &
  member_pid=$!
  children+=("$member_pid")
  until_true "[ -n \"\$(cli -n 15 get _member:$n)\" ] || ! kill -0 $member_pid"
}
origin() { cli -n 15 get "_member:$1"; }
# settled N [SECONDS]: member N serves, has taken in every event so far and
# answered it
settled() {
  until_true "grep -q '^serving' '$dir/member$1.out' && o=\$(origin $1) && [ -n \"\$o\" ] &&
    [ \"\$(cli -n 15 hget _readers \$o)\" = \"\$(cli -n 15 get _events:n)\" ]" "${2:-10}"
}
# topo N: member N's TOPO_DB, a record a line, as people read it
topo() {
  cli -n 14 eval "local out = {} for _, k in ipairs(redis.call('KEYS', ARGV[1])) do
      if redis.call('TYPE', k).ok == 'hash' then out[#out + 1] = k .. ' ' .. redis.call('HGET', k, 'text') end
    end table.sort(out) return out" 0 "member$1/u_cluster*"
}
# same_topo N FILE [SECONDS]: member N's TOPO_DB becomes the one in FILE
same_topo() {
  local end=$((SECONDS + ${3:-10}))
  until topo "$1" >"$dir/got" && cmp -s "$2" "$dir/got"; do
    if [ $SECONDS -ge $end ]; then
      diff "$2" "$dir/got" || true
      fail "member $1's TOPO_DB is not the fault-free run's"
    fi
    sleep 0.05
  done
}
# The unit's inputs of scenarios/three_members/up.dpm, without its checks.
unit_inputs() { grep -v '^expect' "$unit/up.dpm"; }

# Wait for a process that must end with a given status and give its reason
# in its output: ends_with PID STATUS OUTPUT REASON WHO
ends_with() {
  local rc=0
  wait "$1" || rc=$?
  [ "$rc" = "$2" ] || fail "$5 ended with $rc, not $2"
  grep -q "$4" "$3" || fail "$5: no reason given (\"$4\")"
}
