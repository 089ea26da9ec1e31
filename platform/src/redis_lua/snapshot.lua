#!lua flags=no-writes
-- One chunk of a type's records in key order, for a subscription's snapshot
-- or a scan. KEYS: key set. ARGV: db, first member ('-' or '(' and the last
-- one read), limit, member prefix and type.
-- Returns the newest event ordinal, the last member read ('' when this chunk
-- ends the type), the number of key-set entries that name no record of ours
-- (-1: the key set is not a sorted set), then member, packed, form of each
-- record.
redis.call('SELECT', 15)
local count = redis.call('TYPE', '_events:n').ok == 'string' and redis.call('GET', '_events:n')
redis.call('SELECT', ARGV[1])
count = integer(count) and count or '0'
local k = kind(KEYS[1])
if k ~= 'zset' then return {count, '', k == 'none' and 0 or -1} end
local limit = tonumber(ARGV[3])
local members = redis.call('ZRANGEBYLEX', KEYS[1], ARGV[2], '+', 'LIMIT', 0, limit)
local out = {count, #members == limit and members[#members] or '', 0}
for _, m in ipairs(members) do
  -- One command per record: a key of another Redis type answers an error,
  -- a key that is gone answers no bytes; either is not a record of ours.
  local key = record_of(m, ARGV[4])
  local v = key and redis.pcall('HMGET', key, 'packed', 'form')
  if v and not v.err and v[1] then
    out[#out + 1] = m
    out[#out + 1] = v[1]
    out[#out + 1] = v[2] or '0'
  else
    out[3] = out[3] + 1
  end
end
return out
