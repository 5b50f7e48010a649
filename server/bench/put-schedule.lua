-- Each request saves a new schedule with its own id.
wrk.method = "PUT"
wrk.headers["Authorization"] = "Bearer " .. os.getenv("TAVELO_BENCH_KEY")
wrk.headers["Content-Type"] = "application/json"
local counter = 0
local thread_id = 0
function setup(thread)
  thread:set("thread_id", thread_id)
  thread_id = thread_id + 1
end
function request()
  counter = counter + 1
  local id = string.format("%08x-0000-4000-8000-%012x", thread_id, counter)
  local body = '{"id":"' .. id .. '","title":"Bench","prompt":"Summarise the day","firstRun":1893456000,' ..
               '"timeZoneID":"Asia/Tokyo","recurrence":"daily","isPaused":false}'
  return wrk.format(nil, nil, nil, body)
end
