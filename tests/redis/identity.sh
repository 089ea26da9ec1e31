#!/usr/bin/env bash
# Identity on a shared server. Member 1 and the producer each run as PID 1 of
# a PID namespace of their own (as in containers): their origins, handed out
# by the server, still differ, and the member hears every card and record.
# A second process for member 1 is refused while the first lives; when the
# first is killed, its lease runs out and a new one takes over.
source "$(dirname "$0")/lib.sh"
export HOST_ARGS="--redis-timeout 1s"
server
member 1
play "$(unit_inputs)"
settled 1
topo 1 >"$dir/running"

server
setpriv --pdeathsig KILL unshare --pid --fork --kill-child "$host" --redis "unix:$sock" $HOST_ARGS \
  --member 1 --serve "$unit/ports.dpm" "$unit/member.dpm" >"$dir/member1.out" 2>&1 &
member_pid=$!
children+=("$member_pid")
until_true '[ -n "$(origin 1)" ]'
unit_inputs >"$dir/inputs.dpm"
unshare --pid --fork --kill-child "$host" --redis "unix:$sock" "$dir/inputs.dpm" >"$dir/play.out" 2>&1 ||
  fail "the producer failed"
settled 1
same_topo 1 "$dir/running"

rc=0
"$host" --redis "unix:$sock" --member 1 --serve "$unit/member.dpm" >"$dir/second.out" 2>&1 || rc=$?
[ "$rc" = 2 ] && grep -q "member 1 is served by another process" "$dir/second.out" ||
  fail "a second member 1 was not refused (exit $rc)"

kill -KILL "$member_pid"
until_true '[ "$(cli -n 15 pttl _member:1)" = -2 ]'
member 1
settled 1
kill -0 "$member_pid" || fail "the new member 1 ended"
echo "origins unique whatever the PID; one process per member, its lease freed when it dies"
