#!lua flags=no-writes
-- The unit's current state and the stream position it is current at, read
-- together. ARGV: 15. Returns the newest entry id, the newest ordinal, the
-- Redis type of _unit, then its fields and values.
redis.call('SELECT', 15)
local top = kind(EVENTS) == 'stream' and redis.call('XREVRANGE', EVENTS, '+', '-', 'COUNT', 1) or {}
local count = kind(COUNT) == 'string' and redis.call('GET', COUNT)
local out = {#top > 0 and top[1][1] or '0-0', integer(count) and count or '0', kind('_unit')}
if out[3] == 'hash' then
  for _, v in ipairs(redis.call('HGETALL', '_unit')) do out[#out + 1] = v end
end
return out
