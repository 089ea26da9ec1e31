#!/usr/bin/env bash
# The event stream is bounded (--redis-stream-max 100 here). A member started
# after the cards' announcements were trimmed away reads the unit's state and
# ends as one started before them; a member stopped while the entries after
# its position are trimmed learns it and ends with 77 (its session cannot be
# resumed), never passing over them.
source "$(dirname "$0")/lib.sh"
export HOST_ARGS="--redis-stream-max 100"
for i in $(seq 500); do
  echo "db set LOCAL_DB p_dev.card_static_info { index { type: $i } name: \"filler\" }"
done >"$dir/filler.dpm"
filler() { "$host" --redis "unix:$sock" $HOST_ARGS "$dir/filler.dpm" >"$dir/filler.out" 2>&1; }

server
play "$(unit_inputs)"
member 1
settled 1
topo 1 >"$dir/before"

server
play "$(unit_inputs)"
filler
first=$(cli -n 15 xrange _events - + count 1 | sed -n 3p)
[ "$first" -gt 30 ] || fail "the unit's first entries were not trimmed (oldest entry $first)"
member 1
settled 1
same_topo 1 "$dir/before"

kill -STOP "$member_pid"
filler
kill -CONT "$member_pid"
ends_with "$member_pid" 77 "$dir/member1.out" "trimmed or removed before this process read them" "member 1"
echo "cards read from the unit's state; a trimmed gap ends the member with 77"
