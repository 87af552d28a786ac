-- wrk.lua - makes wrk end its report with one line of JSON.

done = function(summary, latency, requests)
  local e = summary.errors
  io.write(string.format(
    '{"requests": %d, "seconds": %.6f, "p50us": %.1f, "p99us": %.1f, "errors": %d}\n',
    summary.requests, summary.duration / 1e6, latency:percentile(50), latency:percentile(99),
    e.connect + e.read + e.write + e.status + e.timeout))
end
