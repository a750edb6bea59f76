-- Load script of the page benchmark. Each wrk thread sends the same request
-- and stops after BENCH_MAX_REQUESTS requests, so a run is bounded in count
-- as well as in time (wrk -d). done() prints one machine-readable line.
local max_requests = tonumber(os.getenv("BENCH_MAX_REQUESTS") or "") or 1000000
local sent = 0
local req = nil
-- With BENCH_PATHS (paths separated by blanks) the requests cycle through
-- those paths instead.
local paths = {}

function init(args)
   req = wrk.format()
   for p in string.gmatch(os.getenv("BENCH_PATHS") or "", "%S+") do
      paths[#paths + 1] = p
   end
end

function request()
   sent = sent + 1
   if sent >= max_requests then
      wrk.thread:stop()
   end
   if #paths > 0 then
      return wrk.format(nil, paths[(sent % #paths) + 1])
   end
   return req
end

function done(summary, latency, requests)
   local e = summary.errors
   io.write(string.format(
      "BENCH requests=%d duration_us=%d bytes=%d status_errors=%d connect=%d read=%d write=%d timeout=%d p50_us=%d p99_us=%d\n",
      summary.requests, summary.duration, summary.bytes, e.status, e.connect, e.read, e.write, e.timeout,
      latency:percentile(50), latency:percentile(99)))
end
