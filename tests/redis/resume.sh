#!/usr/bin/env bash
# Member 1's session goes away while a card fails with its module id (a
# deletion) and links go down and up, then comes back. Each way must end with
# its TOPO_DB equal to a run that took the same writes one by one:
#   kill   its connection killed (CLIENT KILL): resumed, reconnect type 2
#   idle   the server's idle timeout closes it while it is stopped: resumed
#   stall  stopped (SIGSTOP) and continued: it takes the writes in at once
# A server that restarts without its data cannot be resumed: the member ends
# with 77.
source "$(dirname "$0")/lib.sh"
away=('card del 3/2/0' 'db del ASIC_DB s_intf.evt_mod_alloc { index { devid: 3 slotid: 2 } }'
  'member 1'
  'db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 2 } status: 0 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 2 }'
  'db hmset ASIC_DB s_intf.evt_mod_alloc { index { devid: 2 slotid: 2 } modid: 5 node_type: DM_TYPE_LC }'
  'db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 2 } status: 1 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 2 }'
  'db hmset LOCAL_DB p_dev.vsl_local_link { index { devid: 1 slotid: 1 lport: 1 } status: 0 vsl_ap: 1 peer_dev_id: 2 peer_slot_id: 1 peer_lport: 1 }'
  'db hmset ASIC_DB s_intf.evt_mod_alloc { index { devid: 3 slotid: 3 } modid: 6 node_type: DM_TYPE_LC }')
start() { server; play "$(unit_inputs)"; member 1; settled 1; }

start
for line in "${away[@]}"; do
  case $line in member*) ;; *) play 'member 1' "$line"; settled 1 ;; esac
done
topo 1 >"$dir/one-by-one"
grep -q 'modid=4 ' "$dir/one-by-one" && fail "the deleted module id 4 is still balanced"

for way in kill idle stall; do
  echo "== $way"
  start
  o=$(origin 1)
  kill -STOP "$member_pid"
  case $way in
    kill) cli client kill id "$(cli client list | sed -n "s/^id=\([0-9]*\) .* name=dpm-$o .*/\1/p")" >/dev/null ;;
    idle) cli config set timeout 1 >/dev/null
          until_true "! cli client list | grep -q 'name=dpm-$o '" ;;
  esac
  play "${away[@]}"
  cli config set timeout 0 >/dev/null
  kill -CONT "$member_pid"
  settled 1 20
  same_topo 1 "$dir/one-by-one"
  if [ $way != stall ]; then
    grep -q "reconnect type 2" "$dir/member1.out" || fail "$way: not resumed"
    grep -q "reconn topo db" "$dir/module1.log" || fail "$way: the module did not resume"
  fi
  kill -0 "$member_pid" || fail "$way: member 1 ended"
done
echo "== restart"
start
server_again
ends_with "$member_pid" 77 "$dir/member1.out" "another server (its run id changed" "member 1 (server restarted)"
echo "resumed after a killed connection and an idle timeout, and a stall, as one by one"
