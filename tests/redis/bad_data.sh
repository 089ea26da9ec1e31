#!/usr/bin/env bash
# Another process puts junk into the layout while member 1 serves. Each must
# be logged (a line, not a flood) and skipped, and nothing else may change:
# member 1 stays up and hears later writes (its TOPO_DB ends as a run without
# the junk), no record of member 2 is touched, records go with their events.
source "$(dirname "$0")/lib.sh"
change='db hmset ASIC_DB s_intf.evt_mod_alloc { index { devid: 2 slotid: 2 } modid: 5 node_type: DM_TYPE_LC }'
start() { server; play "$(unit_inputs)"; member 1; settled 1; }
# entry FIELD VALUE...: an entry of the event stream numbered as ours are
entry() {
  cli -n 15 eval "local n = redis.call('INCR', '_events:n')
    return redis.call('XADD', '_events', '*', 'n', n, unpack(ARGV))" 0 "$@" >/dev/null
}
other=member2/u_cluster.kel_uc_balance:modid=9

start
play "$change"
settled 1
topo 1 >"$dir/fault-free"

while read -r junk log; do
  echo "== $junk"
  start
  cli -n 14 hset $other packed x >/dev/null
  case $junk in
    big-number) entry origin x kind card_add member 0 type '' data 99999999999 ;;
    bad-event) entry origin x db 0 type s_intf.evt_mod_alloc key k cmd one packed x ;;
    undecodable) entry origin x db 0 type s_intf.evt_mod_alloc key k cmd 1 packed $'\xff\xff' ;;
    no-ordinal) cli -n 15 xadd _events '*' not ours >/dev/null ;;
    stream-string) cli -n 15 del _events >/dev/null; cli -n 15 set _events junk >/dev/null ;;
    foreign-keys)  # entries naming member 2's record and a string, in member 1's indexes
      for k in "00 $other" "01 member1/u_cluster.kel_uc_balance:modid=77"; do
        cli -n 14 zadd member1/_keys:u_cluster.kel_uc_balance 0 "$k" >/dev/null
        cli -n 14 zadd member1/_age:u_cluster.kel_uc_balance 0 "$k" >/dev/null
      done
      cli -n 14 set member1/u_cluster.kel_uc_balance:modid=77 junk >/dev/null
      kill -TERM "$member_pid"
      wait "$member_pid" || fail "member 1 did not end cleanly"
      member 1 ;;
  esac
  until_true "grep -q '$log' '$dir/member1.out'"
  play "$change"
  settled 1
  same_topo 1 "$dir/fault-free"
  [ "$(cli -n 14 exists $other)" = 1 ] || fail "$junk: member 2's record was deleted"
  [ "$(grep -c xn_mom "$dir/member1.out")" -le 4 ] || fail "$junk: more than 4 lines logged"
  kill -0 "$member_pid" || fail "$junk: member 1 ended"
  [ $junk != stream-string ] || [ "$(cli -n 15 type _junk:_events)" = string ] ||
    fail "the string at _events was not moved aside"
done <<'TABLE'
big-number    unit.entry.*does.not.parse
bad-event     is.not.an.event.of.ours
undecodable   does.not.decode
no-ordinal    is.not.an.event.of.ours
stream-string cannot.read.the.event.stream
foreign-keys  name.no.record.of.ours
TABLE
echo "junk logged and skipped; nothing else changed"
