"""Requests per second of one URL: THREADS keep-alive connections, each
sending requests for SECONDS; prints "<requests/s> <requests> <errors>"."""
import http.client
import sys
import threading
import time
import urllib.parse

url, seconds, threads = sys.argv[1], float(sys.argv[2]), int(sys.argv[3])
parts = urllib.parse.urlsplit(url)
target = parts.path + ("?" + parts.query if parts.query else "")
counts = []


def worker():
    done = errors = 0
    conn = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        conn.request("GET", target, headers={"Host": "gateway"})
        answer = conn.getresponse()
        answer.read()
        done += 1
        errors += answer.status != 200
    counts.append((done, errors))


workers = [threading.Thread(target=worker) for _ in range(threads)]
start = time.monotonic()
for w in workers:
    w.start()
for w in workers:
    w.join()
elapsed = time.monotonic() - start
total = sum(c[0] for c in counts)
print(f"{total / elapsed:.0f} {total} {sum(c[1] for c in counts)}")
