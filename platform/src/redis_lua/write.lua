#!lua
-- A record written whole or field by field, with its event.
-- KEYS: record, key set, age index, type set.
-- ARGV: db, origin, number, key-set member, packed, form, text, event command,
-- type with its member prefix, stream bound, plain type.
local turn = out_of_turn()
if turn then return turn end
for i, want in ipairs({'hash', 'zset', 'zset', 'set'}) do
  if foreign(KEYS[i], want) then
    done()
    return {'refused', 'WRONGTYPE ' .. KEYS[i]}
  end
end
local id, n, moved = event({'origin', ARGV[2], 'db', ARGV[1], 'type', ARGV[9], 'key', ARGV[4],
                            'cmd', ARGV[8], 'packed', ARGV[5]}, ARGV[10])
if not id then
  done()
  return {'refused', n}
end
redis.call('HSET', KEYS[1], 'packed', ARGV[5], 'form', ARGV[6], 'text', ARGV[7], 'n', n)
if redis.call('ZADD', KEYS[2], 0, ARGV[4]) == 1 then redis.call('SADD', KEYS[4], ARGV[11]) end
redis.call('ZADD', KEYS[3], n, ARGV[4])
done()
return {id, n, moved}
