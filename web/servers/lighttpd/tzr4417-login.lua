-- The login gate of tzr4417.cgi (mod_magnet, Lua 5.4): bounds the guessing
-- at the password, and is never a weapon against the owner.
--
-- Both snippets attract it three times for the program's address: before
-- mod_auth checks a password (the gate), once mod_auth has let a request
-- through (the physical path: a login), and when an answer starts (a 401
-- there is a password mod_auth refused). mod_setenv, mod_access and
-- mod_magnet come before mod_auth in server.modules, so what the rules
-- refuse as foreign (another site's page, a foreign Host) never reaches a
-- password check; the gate itself refuses an Origin other than the page's.
--
-- Failed checks, each bound over any window of an hour, in time since boot,
-- which no setting of the clock moves (TZR4417_LOGIN_WINDOW in lighttpd's
-- environment shortens the hour for tests; a day is 24 windows):
--
--   * from a source without trust (an IPv4 address, or an IPv6 /64, which
--     one host can fill): 90 over all accounts;
--   * on an account, from sources without trust: 50, all together;
--   * from sources without trust, all together: 1,000 (what bounds memory);
--   * from an exact address that logged in on the account within a day,
--     asked the way the console or a script asks (its header, or the
--     browser's own Sec-Fetch-Site): 10 for that address, and 50 on the
--     account over all such addresses.
--
-- So one address gets at most 100 (90 + 10) and one account at most 100 (the
-- most OWASP's ASVS 4.0.3, V2.2.1 allows); what others do never spends the
-- owner's 10. Past a bound the request gets 429 with a Retry-After, before
-- any password is checked. Nothing skips a bound, not even a password that
-- passed before: a cheap comparison with it would answer guesses too.
--
-- A check is counted when the gate lets it through, so concurrent requests
-- cannot overshoot a bound; the count is taken back when mod_auth lets the
-- request through, or when anything other than a 401 answers it. An answer
-- lighttpd gives before the gate runs (a 413, a bad request) is never seen
-- here. Nothing a client without the password sends is kept past its request
-- but a counted failure, so the tables are as small as the bounds: under
-- 600 KB at worst (bench/guard_memory.lua).
--
-- The logins (address, account, time) are remembered in
-- TZR4417_LOGIN_STATE/logins, the folder var.tzr4417_state names, so that a
-- restart, a reboot or a power cut does not forget where the owner logs in
-- from: written when an address logs in for the first time or its line is a
-- day old, each line with a check so that a torn write grants nothing.
local state = package.loaded["tzr4417-login"]
if not state then
  local WINDOW = tonumber(os.getenv("TZR4417_LOGIN_WINDOW")) or 3600
  local DAY = 24 * WINDOW
  -- The bounds by list: which key prefix, and how many failures a window.
  local LIMIT = { s = 90, u = 50, ["*"] = 1000, a = 10, f = 50 }
  local LOGINS = 256 -- remembered at most, the oldest dropped
  local NAME = 64 -- bytes of a user name; longer ones are refused, unchecked
  local MARK = "TZR4417_LOGIN_GATE" -- what the gate did, for the later stages
  local md, c = lighty.c.md, lighty.c

  local fails = {} -- key -> times of its failures in the window, oldest first
  local logins = {} -- "address account" -> time of the latest login
  local written = {} -- "address account" -> its time in the logins file
  local folder, failed, setup_error = nil, false, nil
  local swept, clock = 0, 0 -- in the failures' time (below)

  local function log(text)
    print("tzr4417-login.lua: " .. text)
  end

  -- The failures of KEY still in the window at SINCE (uptime, below).
  local function recent(key, since)
    local list = fails[key]
    if not list then return 0 end
    local n, gone = #list, 0
    while gone < n and list[gone + 1] <= since - WINDOW do gone = gone + 1 end
    if gone == n then
      fails[key] = nil
      return 0
    end
    if gone > 0 then
      table.move(list, gone + 1, n, 1)
      for i = n - gone + 1, n do list[i] = nil end
    end
    return n - gone
  end

  local function count(keys, since)
    for _, key in ipairs(keys) do
      local list = fails[key] or {}
      fails[key] = list
      list[#list + 1] = since
    end
  end

  -- Requests are resolved in the order they were counted, so the newest
  -- time in each list is this request's.
  local function take_back(keys)
    for _, key in ipairs(keys) do
      local list = fails[key]
      if list then
        list[#list] = nil
        if #list == 0 then fails[key] = nil end
      end
    end
  end

  -- The source of an address: IPv4 as it is, IPv6 by its /64.
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

  -- The oldest entry of a capped map goes when a new one comes.
  local function insert(map, key, value, cap)
    if map[key] == nil then
      local size, oldest = 0, nil
      for other, at in pairs(map) do
        size = size + 1
        if not oldest or at < map[oldest] then oldest = other end
      end
      if size >= cap then map[oldest] = nil end
    end
    map[key] = value
  end

  local function line_check(pair, at)
    return md("sha256", pair .. " " .. at):sub(1, 16)
  end

  local function load()
    local file = io.open(folder .. "/logins")
    if not file then return end
    for line in file:lines() do
      local pair, at, check = line:match("^(%S+ %x+) (%d+) (%x+)$")
      at = tonumber(at)
      if pair and check == line_check(pair, at) and (logins[pair] or 0) < at then
        insert(logins, pair, at, LOGINS)
        written[pair] = at
      end
    end
    file:close()
  end

  -- The whole file anew, on disk before its name is: a power cut leaves the
  -- old file or the new one. Rare enough (a new address, or a day gone) for
  -- two short blocking syncs.
  local function save()
    local path = folder .. "/logins"
    local file, why = io.open(path .. ".new", "w")
    if file then
      for pair, at in pairs(logins) do file:write(pair, " ", at, " ", line_check(pair, at), "\n") end
      file:close()
      os.execute("sync '" .. path .. ".new'")
      file, why = os.rename(path .. ".new", path)
      os.execute("sync '" .. folder .. "'")
    end
    if file then
      failed = false
      for pair, at in pairs(logins) do written[pair] = at end
    elseif not failed then -- said once until it works again
      failed = true
      log("cannot remember logins in " .. folder .. ": " .. tostring(why))
    end
  end

  -- Whether the pair logged in within the day. A login stamped up to a
  -- window after NOW (the clock set back by a little) counts; one stamped
  -- later (the clock set back by more, or not set yet at boot) counts once
  -- the clock has caught up, and is kept meanwhile.
  local function trusted(pair, now)
    local at = logins[pair]
    return at and at <= now + WINDOW and now - at < DAY
  end

  local function login(pair, now)
    local before = logins[pair]
    if before and before <= now and now - before < 60 then return end -- renewed once a minute at most
    insert(logins, pair, now, LOGINS)
    local on_disk = written[pair]
    if not on_disk or now - on_disk >= DAY or on_disk > now then save() end -- after: the clock was set back
  end

  local function sweep(now, since)
    swept = since
    for key in pairs(fails) do recent(key, since) end
    for pair, at in pairs(logins) do
      if now - at >= DAY then logins[pair] = nil end
    end
    for pair in pairs(written) do
      if not logins[pair] then written[pair] = nil end
    end
  end

  -- The account mod_auth will check, exactly as it reads the header
  -- ("Basic " in any case, at most 1,363 characters of base64): false when it
  -- will answer without a check (401), nil when the header is malformed (it
  -- would answer 400 and log the header).
  local function account_of(credentials)
    if credentials:sub(1, 6):lower() ~= "basic " or #credentials > 1369 then return false end
    local text = c.b64dec(credentials:sub(7))
    local name = text and text:match("^([^:]*):")
    if not name or #name > NAME or name:find("%c") then return nil end
    return name
  end

  local function default_port(scheme, authority)
    return (authority:lower():gsub(scheme == "https" and ":443$" or ":80$", ""))
  end

  -- An Origin that is not the page's own: another site's page ("null" from
  -- a sandboxed frame is one too).
  local function foreign(r)
    local origin = r.req_header["Origin"]
    if not origin then return false end
    local scheme, authority = origin:lower():match("^(https?)://([^/]+)$")
    local own = r.req_attr["uri.scheme"]
    return scheme ~= own or default_port(scheme, authority) ~= default_port(own, r.req_header["Host"] or "")
  end

  -- Where a request comes from, as far as anything but its sender's word
  -- can tell: "page" for the console's header (no other site's page can
  -- send it) or the browser's own Sec-Fetch-Site (same-origin, or none for
  -- an address the user typed); "site" for the appliance's cookie alone,
  -- which browsers keep from whatever another site starts (but not from a
  -- page on another port of the same host); false for neither, as what a
  -- foreign page starts over plain HTTP, where browsers send no
  -- Sec-Fetch-Site, and a script that does not send the header.
  local function sender(r)
    local site = r.req_header["Sec-Fetch-Site"]
    if r.req_header["X-Tzr4417-Console"] == "1" or site == "same-origin" or site == "none" then return "page" end
    local cookies = ";" .. (r.req_header["Cookie"] or ""):gsub("%s", "") .. ";"
    return cookies:find(";tzr4417-site=1;", 1, true) and "site"
  end

  local function refuse(r, key, since)
    r.resp_header["Retry-After"] = tostring(math.max(1, fails[key][1] + WINDOW - since))
    r.resp_header["Content-Type"] = "text/plain; charset=utf-8"
    r.resp_body.set({ "Too many failed logins: try again later.\n" })
    return 429
  end

  -- The time the failures' windows go by: seconds since boot, which no
  -- setting of the wall clock moves (stepped back, failures would count
  -- again; forward, they would go early). Where /proc cannot be read, the
  -- wall clock, held where it was while it is set back.
  local function uptime(now)
    local file = io.open("/proc/uptime")
    local up = file and file:read("n")
    if file then file:close() end
    clock = up and math.floor(up) or math.max(clock, now)
    return clock
  end

  -- What is wrong with lighttpd's setup for the guard to count right, if
  -- anything; at the first request it also reads the logins.
  local function setup(r)
    if r.req_env["REMOTE_USER"] then
      return "mod_auth runs before this gate: list mod_setenv, mod_access and mod_magnet ahead of it"
    end
    if folder then return nil end
    -- One process keeps the counts: lighttpd's workers (server.max-worker)
    -- would each keep their own, every bound as many times over.
    local stat = io.open("/proc/self/stat")
    local parent = stat and stat:read("a"):match("^%d+ %b() %S (%d+)")
    if stat then stat:close() end
    local comm = parent and io.open("/proc/" .. parent .. "/comm")
    local name = comm and comm:read("l")
    if comm then comm:close() end
    if name == "lighttpd" then return "lighttpd runs workers: set server.max-worker = 0, as the snippets do" end
    local named = r.req_env["TZR4417_LOGIN_STATE"]
    if not (named and named:match("^/[%w._/-]*$")) then
      return "set var.tzr4417_state to a folder (an absolute path of letters, digits and ._/-)"
    end
    folder = named
    load()
    return nil
  end

  local function gate(r, now)
    if r.req_env[MARK] then return 0 end -- counted already, before a restart of the request
    local wrong = setup_error or setup(r)
    if wrong then
      if wrong ~= setup_error then log(wrong) end -- once
      setup_error = wrong
      return 500
    end
    -- Refused before mod_auth could ask for a password, which would have
    -- the browser send one (typed into the address, or the owner's own).
    local from = sender(r)
    if not from or foreign(r) then return 403 end
    local header = r.req_header["Authorization"]
    local name = header and account_of(header)
    if name == nil then return header and 400 or 0 end
    if not name then return 0 end
    local since = uptime(now)
    if since - swept >= WINDOW then sweep(now, since) end

    local address = r.req_attr["request.remote-addr"] or ""
    local account = md("sha256", name):sub(1, 32)
    local keys = { "s" .. source_of(address), "u" .. account, "*" }
    if from == "page" and trusted(address .. " " .. account, now) then keys = { "a" .. address, "f" .. account } end
    for _, list in ipairs(keys) do
      if recent(list, since) >= LIMIT[list:sub(1, 1)] then return refuse(r, list, since) end
    end
    count(keys, since)
    r.req_env[MARK] = account .. " " .. table.concat(keys, " ")
    return 0
  end

  -- The gate's mark, if it let the request through: the account and the
  -- lists it counted the request in. Gone once read.
  local function mark_of(r)
    local mark = r.req_env[MARK]
    if not mark then return nil end
    r.req_env[MARK] = nil
    local keys = {}
    for key in mark:gmatch("%S+") do keys[#keys + 1] = key end
    return table.remove(keys, 1), keys
  end

  -- Reached only once mod_auth let the request through: a login.
  local function physical(r, now)
    r.req_env["TZR4417_LOGIN_STATE"] = nil -- the program has no use for it
    local account, keys = mark_of(r)
    if not account then return 0 end
    take_back(keys)
    if r.req_env["REMOTE_USER"] then login((r.req_attr["request.remote-addr"] or "") .. " " .. account, now) end
    return 0
  end

  -- An answer starts: a 401 to a request the gate let through is a failed
  -- check, and stays counted; anything else that answered it checked nothing.
  local function answer(r)
    local account, keys = mark_of(r)
    if account and r.req_item.http_status ~= 401 then take_back(keys) end
    return 0
  end

  -- Which stage runs: an answer has its status; the physical path exists
  -- only once the URL has passed mod_auth.
  state = {
    run = function(r, now)
      if r.req_item.http_status ~= 0 then return answer(r) end
      if r.req_attr["physical.path"] then return physical(r, now) end
      return gate(r, now)
    end,
  }
  package.loaded["tzr4417-login"] = state
end
return state.run(lighty.r, lighty.c.time())
