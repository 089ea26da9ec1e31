#!lua
-- Records written (whole or field by field) and deleted, one or many changes
-- of one process in one call, each applied in order, numbered on from
-- ARGV[3]: the Redis types of its keys checked before anything of it is
-- written, its event appended before its record changes, and the origin's
-- last applied number moved on with its event, so that a call broken off
-- half-way and sent again applies none twice. A deletion of a key that holds
-- nothing of ours does nothing and announces nothing.
-- One call for a burst instead of one per change: the server's cost per
-- change is then the commands it needs, not a script run and its database
-- switches.
-- KEYS: each change's keys in turn (a write: record, key set, age index, type
-- set; a deletion: record, key set, age index).
-- ARGV: '', origin, number of the first change, then per change:
--   'w', db, key-set member, packed, form, text, event command, type with its
--   member prefix, stream bound, plain type;
--   'd', db, key-set member, type with its member prefix, stream bound.
-- Returns an error (ORDER) when the first change that is not a repeat would
-- overtake one that did not apply; else one reply per change: 'dup' (applied
-- before, its reply lost), 'none', 'refused' and the cause, or the event's
-- id, its ordinal and what was moved aside.
local origin, seq = ARGV[2], tonumber(ARGV[3])
local current
local function use(db)
  if current ~= db then
    redis.call('SELECT', db)
    current = db
  end
end
use('15')
if foreign(APPLIED, 'hash') then aside(APPLIED) end
local last = redis.call('HGET', APPLIED, origin)
last = integer(last) and tonumber(last) or 0

-- The newest ordinal, read once; what was moved aside goes with the first event.
local n, moved, recorded
local function add_event(fields, maxlen, number)
  use('15')
  local shown = ''
  if not n then
    moved = {}
    if foreign(EVENTS, 'stream') then moved[#moved + 1] = aside(EVENTS) end
    n = newest(moved)
    shown = table.concat(moved, ' ')
  end
  local id = redis.pcall('XADD', EVENTS, 'MAXLEN', '~', maxlen, '*', 'n', n + 1, unpack(fields))
  if type(id) == 'table' and id.err then return nil, id.err end
  n = n + 1
  redis.call('SET', COUNT, n)
  redis.call('HSET', APPLIED, origin, number)
  recorded = number
  return id, n, shown
end

-- Keys of a type's bookkeeping, once found right, stay right for the call:
-- its own changes write nothing of another type there.
local right = {}
local function wrong(db, key, want)
  local at = db .. ' ' .. key
  if right[at] then return false end
  if foreign(key, want) then return true end
  right[at] = true
  return false
end

local function write_one(db, k, a, number)
  use(db)
  if foreign(KEYS[k], 'hash') then return {'refused', 'WRONGTYPE ' .. KEYS[k]} end
  for i, want in ipairs({'zset', 'zset', 'set'}) do
    if wrong(db, KEYS[k + i], want) then return {'refused', 'WRONGTYPE ' .. KEYS[k + i]} end
  end
  local id, e, shown = add_event({'origin', origin, 'db', db, 'type', ARGV[a + 5], 'key',
                                  ARGV[a], 'cmd', ARGV[a + 4], 'packed', ARGV[a + 1]},
                                 ARGV[a + 6], number)
  if not id then return {'refused', e} end
  use(db)
  redis.call('HSET', KEYS[k], 'packed', ARGV[a + 1], 'form', ARGV[a + 2], 'text', ARGV[a + 3],
             'n', e)
  if redis.call('ZADD', KEYS[k + 1], 0, ARGV[a]) == 1 then
    redis.call('SADD', KEYS[k + 3], ARGV[a + 7])
  end
  redis.call('ZADD', KEYS[k + 2], e, ARGV[a])
  return {id, e, shown}
end

local function del_one(db, k, a, number)
  use(db)
  local packed = kind(KEYS[k]) == 'hash' and redis.call('HGET', KEYS[k], 'packed')
  if not packed then return {'none'} end
  for i, want in ipairs({'zset', 'zset'}) do
    if wrong(db, KEYS[k + i], want) then return {'refused', 'WRONGTYPE ' .. KEYS[k + i]} end
  end
  local id, e, shown = add_event({'origin', origin, 'db', db, 'type', ARGV[a + 1], 'key',
                                  ARGV[a], 'cmd', '3', 'packed', packed}, ARGV[a + 2],
                                 number)
  if not id then return {'refused', e} end
  use(db)
  redis.call('DEL', KEYS[k])
  redis.call('ZREM', KEYS[k + 1], ARGV[a])
  redis.call('ZREM', KEYS[k + 2], ARGV[a])
  return {id, e, shown}
end

local out, k, a, applied = {}, 1, 4, nil
while a <= #ARGV do
  local write, db = ARGV[a] == 'w', ARGV[a + 1]
  if seq <= last then
    out[#out + 1] = {'dup'}
  elseif not applied and seq ~= last + 1 then
    return redis.error_reply('ORDER ' .. last)
  else
    applied = seq
    if write then
      out[#out + 1] = write_one(db, k, a + 2, seq)
    else
      out[#out + 1] = del_one(db, k, a + 2, seq)
    end
  end
  seq = seq + 1
  k = k + (write and 4 or 3)
  a = a + (write and 10 or 5)
end
if applied and applied ~= recorded then
  use('15')
  redis.call('HSET', APPLIED, origin, applied)
end
return out
