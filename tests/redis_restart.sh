#!/usr/bin/env bash
# The Redis server goes away under a running member (dpm-host --serve).
# 1. Every connection is dropped, the server stays: the module gets its
#    disconnect and reconnect (type 2) callbacks, resumes, and a module id
#    allocated meanwhile still reaches its output.
#    Undecodable records and foreign keys or events are logged and dropped.
# 2. The server restarts without persistence: nothing can be resumed, the
#    module ends with status 77.
# usage: redis_restart.sh DPM-HOST UNIT-SCRIPTS-DIR
set -euo pipefail
host=$1 unit=$2
dir=$(mktemp -d "${TMPDIR:-/tmp}/dpm-restart.XXXXXX")
sock=$dir/redis.sock
trap 'kill $member 2>/dev/null || true; redis-cli -s "$sock" shutdown nosave >/dev/null 2>&1; [ -n "${KEEP:-}" ] || rm -rf "$dir"' EXIT
server() {
  redis-server --port 0 --unixsocket "$sock" --save '' --appendonly no --dir "$dir" --daemonize yes
  until_true 'redis-cli -s "$sock" ping 2>/dev/null | grep -q PONG'
}
until_true() {  # wait for a condition, at most 10 s
  for _ in $(seq 200); do eval "$1" && return 0; sleep 0.05; done
  echo "not within 10 s: $1"; exit 1
}
play() { printf '%s\n' "$@" >"$dir/play.dpm"; "$host" --redis "unix:$sock" "$dir/play.dpm"; }

server
echo 'set level-file "5"' >"$dir/level.dpm"  # the disconnect callback logs at info
"$host" --redis "unix:$sock" --member 1 --log "$dir/module.log" --serve "$unit/ports.dpm" \
  "$dir/level.dpm" "$unit/member.dpm" >"$dir/member.out" 2>&1 &
member=$!
uc='TOPO_DB u_cluster.kel_uc_balance { index { modid: %d } local_modid: 1 apid: 1 lport: 1 peer_modid: 2 }'
alloc='db hmset ASIC_DB s_intf.evt_mod_alloc { index { devid: %d slotid: %d } modid: %d node_type: DM_TYPE_LC }'
play 'card add 1/1/0' 'card add 2/1/0' "$(printf "$alloc" 1 1 1)" "$(printf "$alloc" 2 1 2)" \
  'db set UDP_DB u_cluster.vsl_chip_fwdstate { index { t_devid: 1 slot: 1 } fwd_state: "forward" modid: 1 }' \
  'db set UDP_DB u_cluster.vsl_chip_fwdstate { index { t_devid: 2 slot: 1 } fwd_state: "forward" modid: 2 }' \
  'member 1' \
  'db set LOCAL_DB p_dev.dtm_route_info { local_id: 1 fibs { owner_mid: 1 dst_id: 2 oif_id: 1 } mfibs { owner_mid: 1 src_id: 2 iif_id: 1 oif_id: 1 } }' \
  'db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 1 } status: 1 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 1 }' \
  "expect record $(printf "$uc" 2) within 5s"

# Bad input from other processes is logged and dropped; nothing else changes.
redis-cli -s "$sock" -n 15 xadd _events:3:member1/p_dev.vsl_local_link '*' cmd 1 packed $'\xff\xff' >/dev/null
redis-cli -s "$sock" -n 15 xadd _events:3:member1/p_dev.vsl_local_link '*' not ours >/dev/null
redis-cli -s "$sock" -n 0 zadd _keys:s_intf.evt_mod_alloc 0 junk >/dev/null
until_true 'grep -q "not an event of ours, dropped" "$dir/member.out"'
grep -q "record does not decode, event 1 dropped" "$dir/member.out"

redis-cli -s "$sock" client kill type normal >/dev/null
play 'card add 2/2/0' "$(printf "$alloc" 2 2 3)" 'member 1' "expect record $(printf "$uc" 3) within 5s"
until_true 'grep -q "reconn topo db" "$dir/module.log"'
grep -q "junk in db 0 is not a s_intf.evt_mod_alloc record, dropped" "$dir/member.out"
grep -q "disconnect topo_db" "$dir/module.log"

redis-cli -s "$sock" shutdown nosave >/dev/null || true
server
rc=0
wait $member || rc=$?
[ "$rc" = 77 ] || { echo "expected exit 77, got $rc"; cat "$dir/member.out"; exit 1; }
echo "resumed after the connections dropped; ended with 77 after the server restarted"
