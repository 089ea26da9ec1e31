#!lua
-- A change of the unit (a card, its presence, an agent record, a port
-- lookup) told to every process: an event, and the unit's current state in
-- the hash _unit, which a process reads when it starts (the stream keeps only
-- the recent history).
-- ARGV: 15, origin, number, kind, member, type, data, state field, how
-- ('set', 'setnx', 'stamp': the value after the event's ordinal, 'del'),
-- value, stream bound.
local turn = out_of_turn()
if turn then return turn end
local moved = {}
if foreign('_unit', 'hash') then moved[1] = aside('_unit') end
local id, n, more = event({'origin', ARGV[2], 'kind', ARGV[4], 'member', ARGV[5], 'type', ARGV[6],
                           'data', ARGV[7]}, ARGV[11])
if not id then
  done()
  return {'refused', n}
end
if ARGV[9] == 'del' then
  redis.call('HDEL', '_unit', ARGV[8])
elseif ARGV[9] == 'setnx' then
  redis.call('HSETNX', '_unit', ARGV[8], n)
elseif ARGV[9] == 'stamp' then
  redis.call('HSET', '_unit', ARGV[8], n .. ':' .. ARGV[10])
else
  redis.call('HSET', '_unit', ARGV[8], ARGV[10])
end
done()
moved[#moved + 1] = more
return {id, n, table.concat(moved, ' ')}
