#!/usr/bin/env bash
# The server refuses member 1's writes for a while; the member keeps them and
# sends them again, in order, until the server takes them. Each fault must end
# with its TOPO_DB equal to a run without the fault, and with the module's
# consistency oracle finding no difference between TOPO_DB and its caches:
#   oom        out of memory (CONFIG SET maxmemory 1), logged once with a count
#   readonly   turned into a read-only replica (REPLICAOF a server not there)
#   noscript   its scripts flushed (SCRIPT FLUSH): loaded again
#   wrongtype  a string where the member writes a record: that one waits
source "$(dirname "$0")/lib.sh"
changes=('db hmset ASIC_DB s_intf.evt_mod_alloc { index { devid: 2 slotid: 2 } modid: 5 node_type: DM_TYPE_LC }'
  'member 1'
  'db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 2 } status: 0 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 2 }')
start() { server; play "$(unit_inputs)"; member 1 --module "$ORACLE" --oracle; settled 1; }
junk=member1/u_cluster.kel_uc_balance:modid=5

start
play "${changes[@]}"
settled 1
topo 1 >"$dir/fault-free"

while read -r fault make log lift; do
  [ -z "${ONLY:-}" ] || [ "$ONLY" = "$fault" ] || continue
  echo "== $fault"
  start
  kill -STOP "$member_pid"
  play "${changes[@]}"
  cli ${make//+/ } >/dev/null
  kill -CONT "$member_pid"
  until_true "grep -q '$log' '$dir/member1.out'"
  [ "$lift" = - ] || cli ${lift//+/ } >/dev/null
  settled 1 20
  same_topo 1 "$dir/fault-free"
  [ "$(grep -c "$log" "$dir/member1.out")" = 1 ] || fail "$fault: not logged once"
  kill -TERM "$member_pid"
  wait "$member_pid" || fail "$fault: member 1 ended with $? (1: the oracle found differences)"
done <<TABLE
oom       config+set+maxmemory+1 refuses.changes.(OOM       config+set+maxmemory+0
readonly  replicaof+127.0.0.1+1  refuses.changes.(READONLY  replicaof+no+one
noscript  script+flush           scripts.loaded.again       -
wrongtype -n+14+set+$junk+x      refused.(WRONGTYPE         -n+14+del+$junk
TABLE
echo "refused writes kept and sent again until the server took them"
