#!/usr/bin/env python3
"""Warm per-request costs by function, from the two profiles of fcgi_ir.py.

    ir_diff.py BASE.out MORE.out COUNT [--exclusive] [--top N]

BASE answered W requests, MORE answered W + COUNT (fcgi_ir.py --keep-base
BASE --keep MORE): for every function, the difference of its inclusive (or,
with --exclusive, exclusive) instruction counts over COUNT is what one warm
request spends in it. Start-up and the cold first requests cancel out.
"""

import argparse
import re
import subprocess

# "1,234 (12.34%)  file:function [object]"
ROW = re.compile(r"\s*([\d,]+)\s+\(\s*[\d.]+%\)\s+(.*)")


def costs(path, inclusive):
    out = subprocess.run(["callgrind_annotate", f"--inclusive={'yes' if inclusive else 'no'}", "--threshold=100",
                          path], capture_output=True, text=True, check=True).stdout
    table = {}
    started = False
    for line in out.splitlines():
        if line.endswith("file:function"):
            started = True
            continue
        row = ROW.match(line)
        if started and row:
            table[row.group(2)] = table.get(row.group(2), 0) + int(row.group(1).replace(",", ""))
    return table


def main():
    p = argparse.ArgumentParser()
    p.add_argument("base")
    p.add_argument("more")
    p.add_argument("count", type=int)
    p.add_argument("--exclusive", action="store_true")
    p.add_argument("--top", type=int, default=40)
    args = p.parse_args()
    base = costs(args.base, not args.exclusive)
    more = costs(args.more, not args.exclusive)
    rows = sorted(((more[f] - base.get(f, 0)) / args.count, f) for f in more)
    for per, name in reversed(rows[-args.top:]):
        print(f"{per:10.0f}  {name[:160]}")


if __name__ == "__main__":
    main()
