-- Sends requests that were signed before the run (see bench/load/Requests.h for the file), so that signing costs nothing here.
-- usage: wrk ... URL -- FILE once|cycle THREADS [BODY_FILE [named]]
--   once        each request is sent once; running out of them is an error
--   cycle       the requests are sent over and over
--   BODY_FILE   the body of each request; "named": its first bytes are replaced by the request's path
-- Each thread takes every THREADS-th request. Prints one line: requests=N seconds=S bytes=B p50=US p99=US errors=E

local threads = {}

function setup(thread)
  table.insert(threads, thread)
  thread:set("number", #threads)
end

local heads, tail = {}, nil
local is_once, is_named = false, false
local next_request = 0
ran_out = 0

local function read_all(name)
  local file = assert(io.open(name, "rb"))
  local bytes = file:read("*a")
  file:close()
  return bytes
end

local function head_of(line, common, body_size)
  local method, path, authorization = line:match("^(%S+)\t(%S+)\t(.+)$")
  local head = method .. " " .. path .. " HTTP/1.1\r\nHost: " .. wrk.host .. ":" .. wrk.port .. "\r\n" .. common .. "\r\n"
  if authorization ~= "-" then
    head = head .. "Authorization: " .. authorization .. "\r\n"
  end
  if body_size then
    head = head .. "Content-Length: " .. body_size .. "\r\n"
  end
  return head .. "\r\n", path
end

function init(args)
  local body = args[4] and read_all(args[4])
  is_once = args[2] == "once"
  is_named = args[5] == "named"
  local common
  local count = 0
  for line in io.lines(args[1]) do
    if not common then
      common = line:gsub("\t", "\r\n")
    else
      count = count + 1
      if count % tonumber(args[3]) == number % tonumber(args[3]) then
        local head, path = head_of(line, common, body and #body)
        -- The path goes to the end of the head, as the first bytes of the body.
        heads[#heads + 1] = is_named and head .. path or head
        tail = tail or (is_named and body:sub(#path + 1)) or body
      end
    end
  end
end

function request()
  next_request = next_request + 1
  if next_request > #heads then
    if is_once then
      ran_out = 1
      wrk.thread:stop()
    end
    next_request = 1
  end
  if tail then
    return heads[next_request] .. tail
  end
  return heads[next_request]
end

function done(summary, latency)
  local errors = summary.errors
  local failed = errors.connect + errors.read + errors.write + errors.status + errors.timeout
  for _, thread in ipairs(threads) do
    if thread:get("ran_out") == 1 then
      io.stderr:write("wrk: the prepared requests ran out\n")
      failed = failed + 1
    end
  end
  io.write(string.format("\nrequests=%d seconds=%.6f bytes=%d p50=%.0f p99=%.0f errors=%d\n", summary.requests,
                         summary.duration / 1e6, summary.bytes, latency:percentile(50), latency:percentile(99), failed))
end
