-- Looks at each request's headers before anything else does.
local request = lighty.r
local headers = request.req_header

-- Addresses of proxies whose word counts, one a line.
local function is_trusted(address)
  local file = io.open("/usr/vemo/etc/www/trusted_proxies", "r")
  if not file then return false end
  for line in file:lines() do
    if line == address then
      file:close()
      return true
    end
  end
  file:close()
  return false
end

local forwarded = {}
for name, _ in pairs(headers) do
  -- "X_Tmp_File" and "X.Tmp.File" would reach a program under the name of
  -- "X-Tmp-File", and one of them would win.
  if name:find("[^%w%-]") then return 400 end
  local lower = name:lower()
  if lower:find("^x%-forwarded") or lower == "forwarded" or lower == "x-real-ip" then
    forwarded[#forwarded + 1] = name
  end
end

if #forwarded > 0 and not is_trusted(request.req_attr["request.remote-ip"]) then
  for _, name in ipairs(forwarded) do
    headers[name] = nil
  end
end
