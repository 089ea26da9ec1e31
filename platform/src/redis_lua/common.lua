-- Shared by every script that changes the layout (placed after its first
-- line). A script runs in the record's database, ARGV[1]; the event stream
-- and the bookkeeping of every process live in database 15. ARGV[2] is the
-- origin of the change (one per process, handed out by the server) and
-- ARGV[3] its number: a process's changes apply once each, in their order.
local EVENTS, COUNT, APPLIED = '_events', '_events:n', '_applied'

local function kind(key)
  return redis.call('TYPE', key).ok
end

-- Something of another Redis type where we keep a `want`.
local function foreign(key, want)
  local k = kind(key)
  return k ~= 'none' and k ~= want
end

local function integer(v)
  return type(v) == 'string' and #v < 16 and string.match(v, '^%d+$') ~= nil
end

local function events_db()
  redis.call('SELECT', 15)
end

local function record_db()
  redis.call('SELECT', ARGV[1])
end

-- What another process left at one of our bookkeeping keys goes aside.
local function aside(key)
  redis.call('RENAME', key, '_junk:' .. key)
  return key
end

-- nil when this change is the origin's next one; else the reply: 'dup' for
-- one applied before (its reply was lost), ORDER for one that would overtake
-- an earlier change that did not apply.
local function out_of_turn()
  events_db()
  if foreign(APPLIED, 'hash') then aside(APPLIED) end
  local last = redis.call('HGET', APPLIED, ARGV[2])
  last = integer(last) and tonumber(last) or 0
  local seq = tonumber(ARGV[3])
  record_db()
  if seq <= last then return {'dup'} end
  if seq ~= last + 1 then return redis.error_reply('ORDER ' .. last) end
  return nil
end

local function done()
  events_db()
  redis.call('HSET', APPLIED, ARGV[2], ARGV[3])
  record_db()
end

-- The ordinal of the newest entry (0: none); a counter that is not a number
-- goes aside and is taken again from the newest entry that carries one.
local function newest(moved)
  local k = kind(COUNT)
  if k ~= 'none' and (k ~= 'string' or not integer(redis.call('GET', COUNT))) then
    moved[#moved + 1] = aside(COUNT)
  end
  local n = redis.call('GET', COUNT)
  if n then return tonumber(n) end
  n = 0
  if kind(EVENTS) == 'stream' then
    for _, e in ipairs(redis.call('XREVRANGE', EVENTS, '+', '-', 'COUNT', 100)) do
      for i = 1, #e[2], 2 do
        if e[2][i] == 'n' and integer(e[2][i + 1]) then n = tonumber(e[2][i + 1]) end
      end
      if n > 0 then break end
    end
  end
  return n
end

-- Append one event (a flat list of fields) with the next ordinal. Returns its
-- entry id, its ordinal and what was moved aside; nil and the reason when the
-- stream cannot take it (then nothing was written).
local function event(fields, maxlen)
  events_db()
  local moved = {}
  if foreign(EVENTS, 'stream') then moved[#moved + 1] = aside(EVENTS) end
  local n = newest(moved) + 1
  local id = redis.pcall('XADD', EVENTS, 'MAXLEN', '~', maxlen, '*', 'n', n, unpack(fields))
  if type(id) == 'table' and id.err then
    record_db()
    return nil, id.err
  end
  redis.call('SET', COUNT, n)
  record_db()
  return id, n, table.concat(moved, ' ')
end

-- The record key a key-set member names, when it is a record of `base` (the
-- member prefix and type): "HEX KEY" with KEY base itself or base:INDEX.
local function record_of(member, base)
  local key = string.match(member, '^%x* (.+)$')
  if key and (key == base or string.sub(key, 1, #base + 1) == base .. ':') then return key end
  return nil
end
