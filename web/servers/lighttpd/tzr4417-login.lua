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
-- with 200 connections tried some 700,000 passwords an hour (README).
--
-- A check counts from the moment the gate lets it through, so connections
-- in flight cannot overshoot a bound; one that does not fail takes its count
-- back when its answer starts. The state lives in this script's Lua state
-- (package.loaded outlives a request, globals do not), so a restart of
-- lighttpd forgets it. TZR4417_LOGIN_WINDOW in lighttpd's environment sets
-- the window in seconds, for tests; a day is 24 windows.

-- Everything but the last line runs once, at the first request: a valid
-- request pays for a few table lookups. lighttpd reloads a changed script
-- into the same Lua state, where the first version's functions stay in
-- package.loaded: restart lighttpd after changing this file.
local state = package.loaded["tzr4417-login"]
if not state then
  local PER_SOURCE, PER_ACCOUNT = 100, 50
  local window = tonumber(os.getenv("TZR4417_LOGIN_WINDOW")) or 3600
  local day = 24 * window
  local sources, accounts, trusted, names = {}, {}, {}, {}
  local named, swept = 0, 0

  -- The times of LIST's checks still in the window at NOW, oldest first;
  -- drops the others (all of them if the clock was set back past the newest).
  local function recent(list, now)
    local n = list and #list or 0
    if n > 0 and list[n] > now then
      for i = 1, n do list[i] = nil end
      return 0
    end
    local gone = 0
    while gone < n and list[gone + 1] <= now - window do gone = gone + 1 end
    if gone > 0 then
      table.move(list, gone + 1, n, 1)
      for i = n - gone + 1, n do list[i] = nil end
    end
    return n - gone
  end

  local function count(map, key, now)
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

  -- The account a basic Authorization header names (false if none), read
  -- as mod_auth reads it (any case, any blanks); decoded once per header a
  -- browser keeps sending, while a guesser's new ones empty the memo.
  local function account_of(credentials)
    local user = names[credentials]
    if user == nil then
      local decoded = lighty.c.b64dec(credentials:match("^[Bb][Aa][Ss][Ii][Cc]%s+(%S+)") or "")
      user = decoded and decoded:match("^[^:]*") or false
      if named >= 1000 then names, named = {}, 0 end
      names[credentials], named = user, named + 1
    end
    return user
  end

  -- Once a window, forget the sources and accounts with no check left in
  -- it and the logins older than a day.
  local function sweep(now)
    swept = now
    for _, map in ipairs({ sources, accounts }) do
      for key, list in pairs(map) do
        if recent(list, now) == 0 then map[key] = nil end
      end
    end
    for user, logins in pairs(trusted) do
      for source, at in pairs(logins) do
        if now - at >= day or at > now then logins[source] = nil end
      end
      if next(logins) == nil then trusted[user] = nil end
    end
  end

  -- The gate before mod_auth (status 0), and the count when the answer
  -- starts: lighttpd's status for the request, or 429 to refuse it.
  local function run(r, now)
    local status = r.req_item.http_status
    local credentials = r.req_header["Authorization"]
    if status ~= 0 and (not credentials or status == 401 or status == 429) then return 0 end
    local source = source_of(r.req_attr["request.remote-addr"] or "")
    local user = credentials and account_of(credentials)
    local logins = user and trusted[user]
    local at = logins and logins[source]
    local known = at and now - at < day and at <= now
    if status ~= 0 then -- a check that did not fail, or never ran
      take_back(sources[source])
      if user and not known then take_back(accounts[user]) end
      -- A login renews the source's day at most once a minute.
      if user and not (known and now - at < 60) and r.req_env["REMOTE_USER"] == user then
        if not logins then
          logins = {}
          trusted[user] = logins
        end
        logins[source] = now
      end
      return 0
    end
    if now - swept >= window then sweep(now) end
    local full = nil
    if recent(sources[source], now) >= PER_SOURCE then
      full = sources[source]
    elseif user and not known and recent(accounts[user], now) >= PER_ACCOUNT then
      full = accounts[user]
    end
    if full then
      -- With a body of its own, lighttpd keeps these headers.
      r.resp_header["Retry-After"] = tostring(math.max(1, full[1] + window - now))
      r.resp_header["Content-Type"] = "text/plain; charset=utf-8"
      r.resp_body.set({ "Too many failed logins: try again later.\n" })
      return 429
    end
    if credentials then
      count(sources, source, now)
      if user and not known then count(accounts, user, now) end
    end
    return 0
  end

  state = { run = run }
  package.loaded["tzr4417-login"] = state
end
return state.run(lighty.r, lighty.c.time())
