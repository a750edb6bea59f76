"""Sends one multipart upload of a given size over a raw socket, streaming
it from one repeated random block, while sampling the resident memory of the
given processes. Prints one line: seconds to the last byte sent, seconds to
the answer, HTTP status, and per process the peak RSS growth in KiB.

    upload_client.py PORT PATH SIZE_BYTES PID...
"""

import os
import socket
import sys
import threading
import time

BOUNDARY = "benchUploadBoundary7d"
BLOCK = os.urandom(1024 * 1024)


def rss_kib(pid):
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def main():
    port, path, size = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
    pids = [int(p) for p in sys.argv[4:]]
    head = (f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="sFirmwareFile"; filename="fw.bin"\r\n'
            "Content-Type: application/octet-stream\r\n\r\n").encode()
    tail = f"\r\n--{BOUNDARY}--\r\n".encode()
    request = (f"POST {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
               f"Content-Type: multipart/form-data; boundary={BOUNDARY}\r\n"
               f"Content-Length: {len(head) + size + len(tail)}\r\n\r\n").encode()

    base = {pid: rss_kib(pid) for pid in pids}
    peak = dict(base)
    done = threading.Event()

    def sample():
        while not done.is_set():
            for pid in pids:
                peak[pid] = max(peak[pid], rss_kib(pid))
            time.sleep(0.05)

    sampler = threading.Thread(target=sample)
    sampler.start()
    started = time.monotonic()
    with socket.create_connection(("127.0.0.1", port)) as conn:
        conn.sendall(request + head)
        left = size
        view = memoryview(BLOCK)
        while left > 0:
            take = min(left, len(BLOCK))
            conn.sendall(view[:take])
            left -= take
        conn.sendall(tail)
        sent = time.monotonic() - started
        answer = b""
        while chunk := conn.recv(65536):
            answer += chunk
    answered = time.monotonic() - started
    done.set()
    sampler.join()
    status = answer.split(b" ", 2)[1].decode() if answer.startswith(b"HTTP/") else "000"
    growth = " ".join(f"{peak[pid] - base[pid]}" for pid in pids)
    print(f"{sent:.3f} {answered:.3f} {status} {growth}")


if __name__ == "__main__":
    main()
