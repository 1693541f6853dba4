-- Bounds failed password checks for tzr4417.cgi (mod_magnet, Lua 5.4).
-- tzr4417.conf and tzr4417-https.conf attract it twice for the program's
-- address: before mod_auth checks a password (the gate), and when the
-- answer starts (the count). Two bounds, each over any window of an hour:
--
--   * per source address (an IPv6 one by its /64, all of which one host
--     can take): 100 checks that fail, over every account together. Past
--     that, the source's requests for the program get 429 Too Many
--     Requests with a Retry-After, and none reaches mod_auth or the program.
--   * per account, from sources that have not logged in on it within the
--     last day: 50, all such sources together. Past that, those sources
--     get 429 for that account; a source that logged in on it within the
--     day goes on as before, so the owner is never locked out by someone
--     else's guessing, and a right password after a few typos works.
--
-- 100 is what OWASP's verification standard (ASVS 4.0.3, V2.2.1) allows at
-- most on one account in an hour; 50 keeps many hosts together to half of
-- it and leaves the rest to the owner's own typos. lighttpd answers a wrong
-- password after a second, per connection: without the bounds one host
-- with 200 connections tries some 600,000 passwords an hour.
--
-- A check counts from the moment the gate lets it through, so connections
-- in flight cannot overshoot a bound; one that does not fail takes its count
-- back when its answer starts. The state lives in this script's Lua state
-- (package.loaded outlives a request, globals do not), so a restart of
-- lighttpd forgets it. TZR4417_LOGIN_WINDOW in lighttpd's environment sets
-- the window in seconds, for tests; a day is 24 windows.

local r = lighty.r
local now = lighty.c.time()
local PER_SOURCE, PER_ACCOUNT = 100, 50

local state = package.loaded["tzr4417-login"]
if not state then
  local window = tonumber(os.getenv("TZR4417_LOGIN_WINDOW")) or 3600
  state = { window = window, day = 24 * window, swept = now, sources = {}, accounts = {}, trusted = {} }
  package.loaded["tzr4417-login"] = state
end

-- The times of LIST's checks still in the window, oldest first; drops the
-- others (all of them if the clock was set back past the newest).
local function recent(list)
  local n = list and #list or 0
  if n > 0 and list[n] > now then
    for i = 1, n do list[i] = nil end
    return 0
  end
  local gone = 0
  while gone < n and list[gone + 1] <= now - state.window do gone = gone + 1 end
  if gone > 0 then
    table.move(list, gone + 1, n, 1)
    for i = n - gone + 1, n do list[i] = nil end
  end
  return n - gone
end

local function count(map, key)
  local list = map[key]
  if not list then
    list = {}
    map[key] = list
  end
  list[#list + 1] = now
end

local function take_back(list)
  if list then list[#list] = nil end
end

-- The key of a source address: IPv4 as it is, IPv6 by its /64.
local function source_of(address)
  if not address:find(":", 1, true) then return address end
  local mapped = address:match("^::ffff:(%d+%.%d+%.%d+%.%d+)$")
  if mapped then return mapped end
  address = address:gsub("%%.*", "")
  local head, tail = address:match("^(.-)::(.*)$")
  local groups = {}
  for group in (head or address):gmatch("[^:]+") do groups[#groups + 1] = group end
  if head then
    local right = {}
    for group in tail:gmatch("[^:]+") do right[#right + 1] = group end
    for _ = #groups + #right + 1, 8 do groups[#groups + 1] = "0" end
    for _, group in ipairs(right) do groups[#groups + 1] = group end
  end
  return table.concat(groups, ":", 1, 4) .. "::/64"
end

-- Once a window, forget the sources and accounts with no check left in
-- it and the logins older than a day.
local function sweep()
  state.swept = now
  for _, map in ipairs({ state.sources, state.accounts }) do
    for key, list in pairs(map) do
      if recent(list) == 0 then map[key] = nil end
    end
  end
  for key, at in pairs(state.trusted) do
    if now - at >= state.day or at > now then state.trusted[key] = nil end
  end
end

local source = source_of(r.req_attr["request.remote-addr"])
local credentials = r.req_header["Authorization"]
local user = credentials and lighty.c.b64dec(credentials:match("^[Bb]asic%s+(%S+)") or "")
user = user and user:match("^[^:]*")
local login = user and user .. "\n" .. source
local at = login and state.trusted[login]
local trusted = at and now - at < state.day and at <= now
local status = r.req_item.http_status

if status == 0 then -- the gate
  if now - state.swept >= state.window then sweep() end
  local full = nil
  if recent(state.sources[source]) >= PER_SOURCE then
    full = state.sources[source]
  elseif user and not trusted and recent(state.accounts[user]) >= PER_ACCOUNT then
    full = state.accounts[user]
  end
  if full then
    -- With a body of its own, lighttpd keeps these headers.
    r.resp_header["Retry-After"] = tostring(math.max(1, full[1] + state.window - now))
    r.resp_header["Content-Type"] = "text/plain; charset=utf-8"
    r.resp_body.set({ "Too many failed logins: try again later.\n" })
    return 429
  end
  if credentials then
    count(state.sources, source)
    if user and not trusted then count(state.accounts, user) end
  end
elseif credentials and status ~= 401 and status ~= 429 then -- a check that did not fail, or never ran
  take_back(state.sources[source])
  if user and not trusted then take_back(state.accounts[user]) end
  if user and r.req_env["REMOTE_USER"] == user then state.trusted[login] = now end
end
return 0
