#!/usr/bin/env python3
"""Instructions of one request in a warm FastCGI responder.

cgi-ssi runs as a FastCGI responder (on a Unix socket) under callgrind
twice: once answering WARM requests, once answering WARM + COUNT of the
same request. The difference divided by COUNT is what the responder pays
per request once started and warmed up (start-up, first reads and exit
cancel out). With --strace FILE the responder runs plainly and `strace -c` watches
the COUNT requests after the warm-up instead.

    fcgi_ir.py BINARY ARGV0 ROOT PARAMS_JSON [--count N] [--warm N] [--strace FILE] [--keep FILE]
               [--keep-base FILE]

PARAMS_JSON is the FastCGI parameter set (a JSON object); ROOT the gateway
root (QUELM_ROOT). Prints "instructions_per_request answer_bytes".
"""

import argparse
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "integration"))
from fcgi import Responder  # noqa: E402


class Wrapped(Responder):
    """A responder started through a wrapper command (valgrind), under the
    name argv0 (a link to the binary, since argv[0] chooses the handler)."""

    def __init__(self, wrapper, link, env, socket_path):
        self.address = str(socket_path)
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(self.address)
        listener.listen(16)
        self.proc = subprocess.Popen(wrapper + [link], stdin=listener.fileno(), stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, env=env)
        listener.close()


def settle(responder, params):
    """Lets the counted requests find the session and the token as a busy
    responder mostly does: already refreshed for the current second and
    kept. One request just after a second begins refreshes both files; the
    responder trusts a file again once its last change is settled (50 ms),
    so the counted requests start 200 ms later, well within that second."""
    now = time.time()
    time.sleep(1.05 - (now - int(now)))
    responder.request(params)
    time.sleep(0.2)


def run(args, params, requests, wrapper):
    """Serves requests under wrapper (+ strace -c after the warm-up when
    asked); returns the size of the last answer."""
    env = {"PATH": "/usr/bin:/bin", "QUELM_ROOT": args.root,
           "QUELM_LOG_FILE": os.path.join(args.work, "cgi-ssi.log")}
    link = os.path.join(args.work, args.argv0)
    if not os.path.exists(link):
        os.symlink(os.path.abspath(args.binary), link)
    sock = os.path.join(args.work, f"fcgi.{requests}.sock")
    responder = Wrapped(wrapper, link, env, sock)
    size = 0
    tracer = None
    for i in range(requests):
        if args.strace and i == args.warm:
            tracer = subprocess.Popen(["strace", "-c", "-o", args.strace, "-p", str(responder.proc.pid)],
                                      stderr=subprocess.DEVNULL)
            time.sleep(0.5)
        if i == args.warm:
            settle(responder, params)  # (counted by strace too)
        answer, _ = responder.request(params)
        size = len(answer)
    if requests == args.warm:
        settle(responder, params)  # as the longer run does before its counted requests
    if tracer is not None:
        tracer.send_signal(signal.SIGINT)
        tracer.wait(timeout=30)
    responder.stop()
    return size


def total_ir(path):
    with open(path) as f:
        for line in f:
            if line.startswith("summary:") or line.startswith("totals:"):
                return int(line.split()[1])
    raise SystemExit(f"{path}: no callgrind summary")


def main():
    p = argparse.ArgumentParser()
    p.add_argument("binary")
    p.add_argument("argv0")
    p.add_argument("root")
    p.add_argument("params")
    p.add_argument("--count", type=int, default=20)
    p.add_argument("--warm", type=int, default=3)
    p.add_argument("--strace", metavar="FILE", help="strace -c the COUNT requests into FILE instead")
    p.add_argument("--keep", metavar="FILE", help="keep the longer callgrind profile as FILE")
    p.add_argument("--keep-base", metavar="FILE",
                   help="keep the shorter profile as FILE (per-function differences of the two, over COUNT, are "
                        "the warm costs: bench/ir_diff.py)")
    args = p.parse_args()
    params = json.loads(args.params)
    with tempfile.TemporaryDirectory() as work:
        args.work = work
        if args.strace:
            run(args, params, args.warm + args.count, [])
            print(open(args.strace).read())
            return
        base = os.path.join(work, "base.out")
        more = os.path.join(work, "more.out")
        run(args, params, args.warm, ["valgrind", "--tool=callgrind", f"--callgrind-out-file={base}"])
        size = run(args, params, args.warm + args.count,
                   ["valgrind", "--tool=callgrind", f"--callgrind-out-file={more}"])
        if args.keep:
            os.replace(more, args.keep)
            more = args.keep
        if args.keep_base:
            os.replace(base, args.keep_base)
            base = args.keep_base
        per = (total_ir(more) - total_ir(base)) / args.count
        print(f"{per:.0f} {size}")


if __name__ == "__main__":
    main()
