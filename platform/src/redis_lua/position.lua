#!lua flags=no-writes
-- Where the event stream stands. ARGV: 15, an entry id.
-- Returns the newest entry id ('0-0': none), the newest ordinal, the ordinal
-- of the first entry after the id that carries one ('' none within 1000
-- entries), and the stream's Redis type.
redis.call('SELECT', 15)
local k = kind(EVENTS)
local count = kind(COUNT) == 'string' and redis.call('GET', COUNT)
count = integer(count) and count or '0'
if k ~= 'stream' then return {'0-0', count, '', k} end
local top = redis.call('XREVRANGE', EVENTS, '+', '-', 'COUNT', 1)
local last = #top > 0 and top[1][1] or '0-0'
local first = ''
for _, e in ipairs(redis.call('XRANGE', EVENTS, '(' .. ARGV[2], '+', 'COUNT', 1000)) do
  for i = 1, #e[2], 2 do
    if e[2][i] == 'n' and integer(e[2][i + 1]) then first = e[2][i + 1] end
  end
  if first ~= '' then break end
end
return {last, count, first, k}
