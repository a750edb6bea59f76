-- Load script of the memory run: each wrk thread cycles through the paths
-- in BENCH_PATHS (separated by blanks) and stops after BENCH_MAX_REQUESTS
-- requests. The headers given to wrk (-H) go with every request.
local max_requests = tonumber(os.getenv("BENCH_MAX_REQUESTS") or "") or 100000
local paths = {}
local sent = 0

function init(args)
   for p in string.gmatch(os.getenv("BENCH_PATHS") or "/", "%S+") do
      paths[#paths + 1] = p
   end
end

function request()
   sent = sent + 1
   if sent >= max_requests then
      wrk.thread:stop()
   end
   return wrk.format(nil, paths[(sent % #paths) + 1])
end

function done(summary, latency, requests)
   local e = summary.errors
   io.write(string.format(
      "BENCH requests=%d duration_us=%d bytes=%d status_errors=%d connect=%d read=%d write=%d timeout=%d p50_us=%d p99_us=%d\n",
      summary.requests, summary.duration, summary.bytes, e.status, e.connect, e.read, e.write, e.timeout,
      latency:percentile(50), latency:percentile(99)))
end
