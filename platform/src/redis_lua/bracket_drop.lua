#!lua
-- The module instance that opened a data-sync bracket ended: the bracket
-- dooms nothing any more. KEYS: bracket key. ARGV: db, origin, number.
local turn = out_of_turn()
if turn then return turn end
if kind(KEYS[1]) == 'string' then redis.call('DEL', KEYS[1]) end
done()
return {'ok'}
