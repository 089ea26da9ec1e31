#!/usr/bin/env bash
# A producer writes 20000 records while its connection is killed again and
# again: each record is stored and announced exactly once, and it exits 0.
# When the server goes for good under it, it exits 3 naming what the server
# did not acknowledge.
source "$(dirname "$0")/lib.sh"
for i in $(seq 20000); do
  echo "db set UDP_DB u_cluster.kel_dev_fwdstate { index { devid: $i } fwd_state: \"forward\" }"
done >"$dir/many.dpm"
stored() { cli -n 8 zcard _keys:u_cluster.kel_dev_fwdstate; }

server
"$host" --redis "unix:$sock" "$dir/many.dpm" >"$dir/producer.out" 2>&1 &
producer=$!
kills=0
while kill -0 "$producer" 2>/dev/null; do  # a kill after every 1000 records stored
  if [ "$(stored)" -ge $(((kills + 1) * 1000)) ]; then
    cli client kill type normal >/dev/null
    kills=$((kills + 1))
  fi
done
wait "$producer" || fail "the producer ended with $?"
[ "$kills" -ge 10 ] || fail "only $kills connections killed"
[ "$(stored)" = 20000 ] || fail "$(stored) of 20000 records stored"
events=$(cli -n 15 eval "local n = 0 for _, e in ipairs(redis.call('XRANGE', '_events', '-', '+')) do
    if e[2][8] == 'u_cluster.kel_dev_fwdstate' then n = n + 1 end end return n" 0)
[ "$events" = 20000 ] || fail "$events events for 20000 records"
grep -q "lost" "$dir/producer.out" || fail "no connection was lost"

server
"$host" --redis "unix:$sock" --redis-timeout 300ms "$dir/many.dpm" >"$dir/producer.out" 2>&1 &
producer=$!
until_true '[ "$(stored)" -ge 1000 ]'
kill -KILL "$server_pid"
ends_with "$producer" 3 "$dir/producer.out" "did not acknowledge" "the producer that lost the server"
echo "$kills killed connections lost nothing; a server gone for good: exit 3"
