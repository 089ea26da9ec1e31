#!lua
-- A data-sync bracket opens: it remembers the newest event ordinal, so that
-- every record of the type not written after it is doomed.
-- KEYS: bracket key. ARGV: db, origin, number.
local turn = out_of_turn()
if turn then return turn end
if foreign(KEYS[1], 'string') then
  done()
  return {'refused', 'WRONGTYPE ' .. KEYS[1]}
end
events_db()
local n = redis.call('GET', COUNT)
if kind(COUNT) ~= 'string' or not integer(n) then n = '0' end
record_db()
redis.call('SET', KEYS[1], n)
done()
return {'ok'}
