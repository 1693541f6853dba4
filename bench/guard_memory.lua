-- The login guard's memory at its worst, with the Lua it runs in lighttpd:
-- every bound full at once. A stand-in for lighttpd's request objects drives
-- tzr4417-login.lua through its three stages; the digests are stand-ins of
-- the same length. Prints the kilobytes the guard's tables take.
--
--   lua5.4 bench/guard_memory.lua web/servers/lighttpd/tzr4417-login.lua
local script = assert(loadfile(arg[1]))
local now = 1800000000
local function hex(text, length)
  local sum = 0
  for i = 1, #text do sum = (sum * 31 + text:byte(i)) % (1 << 52) end
  return string.format("%016X", sum):rep(8):sub(1, length)
end
lighty = { c = {
  time = function() return now end,
  md = function(_, text) return hex(text, 64) end,
  b64dec = function(text) return text end, -- the requests below send the name:password plainly
} }

local folder = os.tmpname()
os.remove(folder)
assert(os.execute("mkdir " .. folder))

local function request(address, name, status)
  local env, headers = { TZR4417_LOGIN_STATE = folder }, {
    Authorization = "Basic " .. name .. ":wrong", ["X-Tzr4417-Console"] = "1" }
  local r = { req_header = headers, req_env = env, resp_header = {}, resp_body = { set = function() end },
    req_attr = { ["request.remote-addr"] = address, ["uri.scheme"] = "http" }, req_item = { http_status = 0 } }
  lighty.r = r
  local answer = script()
  if answer ~= 0 then return answer end
  r.req_item.http_status = status
  if status == 200 then -- the login passed mod_auth: the physical stage, then the answer
    r.req_item.http_status, r.req_attr["physical.path"], env.REMOTE_USER = 0, "/www/cgi-bin/tzr4417.cgi", name
    script()
    r.req_item.http_status = 200
  end
  return script()
end

collectgarbage("collect")
local before = collectgarbage("count")
-- 256 logins, each from an address and on an account of its own (the most remembered), each then 10 failures.
for i = 1, 256 do
  local address, name = string.format("fd00:%x::%x", i, i), string.format("user%060d", i)
  assert(request(address, name, 200) == 0)
  for _ = 1, 10 do assert(request(address, name, 401) == 0) end
end
-- 1,000 failures from addresses without trust, each from a /64 and on a name of its own (the most kept).
for i = 1, 1000 do
  assert(request(string.format("2001:db8:%x:%x::1", i // 65536, i % 65536), string.format("guess%059d", i), 401) == 0)
end
assert(request("192.0.2.1", "one more", 401) == 429)
collectgarbage("collect")
print(string.format("the login guard's tables at their fullest: %.0f KB", collectgarbage("count") - before))
os.execute("rm -r " .. folder)
