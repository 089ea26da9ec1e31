#!lua
-- A record deleted, with its event carrying the record as it was stored.
-- Nothing of ours at the key: nothing to delete, no event.
-- KEYS: record, key set, age index.
-- ARGV: db, origin, number, key-set member, type with its member prefix, stream bound.
local turn = out_of_turn()
if turn then return turn end
local packed = kind(KEYS[1]) == 'hash' and redis.call('HGET', KEYS[1], 'packed')
if not packed then
  done()
  return {'none'}
end
for i, want in ipairs({'hash', 'zset', 'zset'}) do
  if foreign(KEYS[i], want) then
    done()
    return {'refused', 'WRONGTYPE ' .. KEYS[i]}
  end
end
local id, n, moved = event({'origin', ARGV[2], 'db', ARGV[1], 'type', ARGV[5], 'key', ARGV[4],
                            'cmd', '3', 'packed', packed}, ARGV[6])
if not id then
  done()
  return {'refused', n}
end
redis.call('DEL', KEYS[1])
redis.call('ZREM', KEYS[2], ARGV[4])
redis.call('ZREM', KEYS[3], ARGV[4])
done()
return {id, n, moved}
