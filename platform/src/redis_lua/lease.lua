#!lua
-- One process per member: the lease _member:N holds the origin of the
-- process that serves member N for ARGV[3] ms; the holder renews it.
-- KEYS: lease. ARGV: 15, origin, time to live in ms, 'release' to give it up.
-- Returns the holder and the ms it still holds the lease.
if kind(KEYS[1]) ~= 'none' and kind(KEYS[1]) ~= 'string' then return {'', -1} end
local holder = redis.call('GET', KEYS[1])
if ARGV[4] == 'release' then
  if holder == ARGV[2] then redis.call('DEL', KEYS[1]) end
  return {ARGV[2], 0}
end
if not holder or holder == ARGV[2] then
  redis.call('SET', KEYS[1], ARGV[2], 'PX', ARGV[3])
  return {ARGV[2], tonumber(ARGV[3])}
end
return {holder, redis.call('PTTL', KEYS[1])}
