#!/usr/bin/env bash
# Two million key-set entries that name no record: member 1's snapshot and
# scans read them in chunks, each within the round-trip timeout (1 s here),
# and it ends as a member without them. A member whose snapshot cannot be
# read (the server stops under it, three times) says why and ends with 77
# instead of trying for ever.
source "$(dirname "$0")/lib.sh"
junk() {  # 2000000 entries in ASIC_DB's key set of module-id allocations
  cli -n 0 eval "for i = 1, 2000000, 1000 do local m = {}
      for j = i, i + 999 do m[#m + 1] = 0; m[#m + 1] = 'junk' .. j end
      redis.call('ZADD', KEYS[1], unpack(m)) end" 1 _keys:s_intf.evt_mod_alloc >/dev/null
}
lines() { grep -c "$1" "$dir/member1.out" || true; }

server
play "$(unit_inputs)"
member 1
settled 1
topo 1 >"$dir/fault-free"

server
play "$(unit_inputs)"
junk
member 1 --redis-timeout 1s
settled 1 120
same_topo 1 "$dir/fault-free"
grep -q "2000000 entries of _keys:s_intf.evt_mod_alloc in db 0 name no record of ours" \
  "$dir/member1.out" || fail "the junk entries were not counted"

kill -TERM "$member_pid"
wait "$member_pid" || fail "member 1 did not end cleanly"
member 1 --redis-timeout 300ms
for try in 1 2 3; do
  until_true "[ \$(lines 'read in chunks') -ge $try ]" 60
  kill -STOP "$server_pid"
  until_true "[ \$(lines 'connection to .* lost') -ge $try ]"
  kill -CONT "$server_pid"
done
ends_with "$member_pid" 77 "$dir/member1.out" "could not be read in 3 tries" "member 1"
echo "two million junk entries read in chunks; an unreadable snapshot ends the member with 77"
