#!lua
-- A data-sync bracket closes: the records it doomed are deleted, each with
-- its event, at most ARGV[8] of them per call ('more' then asks for another
-- call with the bracket's ordinal in ARGV[4]; the bracket key goes with the
-- last). Index entries that name no
-- record of ours are dropped from the age index and counted.
-- KEYS: bracket key, key set, age index.
-- ARGV: db, origin, number, ordinal ('' on the first call), type with its
-- member prefix, stream bound, member prefix and type, limit.
local turn = out_of_turn()
if turn then return turn end
for i, want in ipairs({'string', 'zset', 'zset'}) do
  if foreign(KEYS[i], want) then
    done()
    return {'refused', 'WRONGTYPE ' .. KEYS[i]}
  end
end
local epoch = ARGV[4]
if epoch == '' then epoch = redis.call('GET', KEYS[1]) end
if not integer(epoch) then
  done()
  return {'done', '0', 0}
end
local members = redis.call('ZRANGEBYSCORE', KEYS[3], '-inf', epoch, 'LIMIT', 0, tonumber(ARGV[8]))
local out = {#members == tonumber(ARGV[8]) and 'more' or 'done', epoch, 0}
for _, m in ipairs(members) do
  local key = record_of(m, ARGV[7])
  local packed = key and kind(key) == 'hash' and redis.call('HGET', key, 'packed')
  if not packed then
    redis.call('ZREM', KEYS[3], m)
    out[3] = out[3] + 1
  else
    local id, n = event({'origin', ARGV[2], 'db', ARGV[1], 'type', ARGV[5], 'key', m,
                         'cmd', '3', 'packed', packed}, ARGV[6])
    if not id then
      done()
      return {'refused', n}
    end
    redis.call('DEL', key)
    redis.call('ZREM', KEYS[2], m)
    redis.call('ZREM', KEYS[3], m)
    out[#out + 1] = id
    out[#out + 1] = n
  end
end
-- The last call closes the bracket, unless a new one opened meanwhile.
if out[1] == 'done' and redis.call('GET', KEYS[1]) == epoch then redis.call('DEL', KEYS[1]) end
done()
return out
