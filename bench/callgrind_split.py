#!/usr/bin/env python3
"""Splits what callgrind counted into the module's own instructions and its host's.

Usage: callgrind_split.py CASE REPEATS CALLGRIND_OUT CALL_COUNTS

The module's own are those in its file and those of the C library's functions that it calls.
Everything that it calls in the program is the host's, whatever that calls in turn.
"""

import collections
import pathlib
import sys

MODULE = "tarn_memdb.so"
PROGRAM = "bench_calls"
SHOWN = 12


def side_of(object_file):
    name = pathlib.Path(object_file).name
    return {MODULE: "module", PROGRAM: "host"}.get(name, "library")


def read(path):
    """Yields (object, function, called object, called function, instructions); the called ones are
    None for a function's own instructions."""
    where = {"ob": "", "fn": "", "cob": "", "cfn": ""}
    in_call = False
    for line in path.read_text().splitlines():
        name, found, value = line.partition("=")
        if found and name in where:
            where[name] = value
            if name == "fn":
                where["cob"] = where["ob"]
        elif found and name == "calls":
            in_call = True
        elif line[:1].isdigit() or line[:1] in "+-*":
            cost = int(line.split()[1]) if len(line.split()) > 1 else 0
            if in_call:
                yield where["ob"], where["fn"], where["cob"], where["cfn"], cost
                # The called object is told only where it isn't the caller's own.
                where["cob"] = where["ob"]
            else:
                yield where["ob"], where["fn"], None, None, cost
            in_call = False


def main():
    if len(sys.argv) != 5:
        raise SystemExit(__doc__)
    title, repeats, out, calls = sys.argv[1], int(sys.argv[2]), *map(pathlib.Path, sys.argv[3:])
    functions = collections.Counter()
    totals = collections.Counter()
    for at, function, called_at, called, cost in read(out):
        if side_of(at) != "module":
            continue
        if called is None:
            functions[function] += cost
            totals["in its own functions"] += cost
        elif side_of(called_at) == "library":
            functions[called] += cost
            totals["in the C library for them"] += cost
        elif side_of(called_at) == "host":
            totals["host"] += cost
    own = totals["in its own functions"] + totals["in the C library for them"]
    print(f"\n{title}: {own / repeats:.0f} instructions of the module's own")
    for name in ("in its own functions", "in the C library for them"):
        print(f"  {totals[name] / repeats:8.1f}  {name}")
    print("  of which:")
    for name, cost in functions.most_common(SHOWN):
        print(f"  {cost / repeats:8.1f}  {name}")
    print("  calls into the host: " + ", ".join(calls.read_text().split("\n")[:-1]))


main()
