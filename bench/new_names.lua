-- wrk: 100,000 requests, each with a user name never sent before: odd ones
-- a kilobyte long without a colon (malformed), even ones short with a wrong
-- password (a check, until the bound refuses them). Then /tmp/wrk.done.
local digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
local function base64(text) -- of a multiple of 3 bytes
  local out = {}
  for i = 1, #text, 3 do
    local n = text:byte(i) * 65536 + text:byte(i + 1) * 256 + text:byte(i + 2)
    for shift = 18, 0, -6 do
      local six = math.floor(n / 2 ^ shift) % 64
      out[#out + 1] = digits:sub(six + 1, six + 1)
    end
  end
  return table.concat(out)
end
local long, wrong = base64(string.rep("x", 999)), base64(":wrong")
local sent, answered = 0, 0

request = function()
  sent = sent + 1
  local credentials = base64(string.format("%09d", sent)) .. (sent % 2 == 1 and long or wrong)
  return wrk.format(nil, nil, { ["Authorization"] = "Basic " .. credentials, ["X-Tzr4417-Console"] = "1" })
end

response = function()
  answered = answered + 1
  if answered == 100000 then -- wrk runs on for its whole -d: bench/new_names.py ends it once this file is there
    io.open("/tmp/wrk.done", "w"):close()
    wrk.thread:stop()
  end
end
