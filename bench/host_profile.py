#!/usr/bin/env python3
"""Counts the instructions of selects, writes and best matches on a real server under callgrind, and
tells in whose files they stand: the split between the host's calls and the module's code.

Usage: bench/host_profile.py MODULE.so

A loop without its body is counted too and taken off. Counts differ a little from run to run, by
where the allocator finds its blocks.
"""

import collections
import pathlib
import re
import shutil
import sys
import tempfile
import time

sys.dont_write_bytecode = True

import host_cases  # noqa: E402  (no byte code of these)
import host_loops  # noqa: E402
import host_prefixes  # noqa: E402
import host_site  # noqa: E402

ROWS = 1000
REPEATS = 400
ALLOCATORS = ("fm", "qm")
MODULE = "tarn_memdb.so"
# What the host runs for every request, and nothing but the script below it.
ENTRY = "run_top_route"


def profiled():
    """Groups of loops, the loops that fill for them, and what their server holds."""
    fillers = [
        (loop, count)
        for loop, count in host_cases.fillers()
        if loop.name in (f"fill_flat{ROWS}", "fill_write")
    ]
    prefixes = host_prefixes.PrefixStock(counts=(ROWS,))
    return (
        ([host_cases.selects(ROWS), host_cases.writes()], fillers, host_site.SmallStock()),
        ([host_prefixes.matches(ROWS, host_prefixes.NEAR_CALLS)], [], prefixes),
    )


class ProfiledServer(host_site.BenchServer):
    """A server under callgrind."""

    def _starter(self, allocator):
        host = host_site.found_host()
        loader = host_site.loader_words(host)
        command = [
            "valgrind",
            "--tool=callgrind",
            f"--callgrind-out-file={self.directory}/callgrind.%p",
            f"--log-file={self.directory}/valgrind.%p",
            f"--toggle-collect={ENTRY}",
            f"--dump-after={ENTRY}",
            "--compress-strings=no",
            "--compress-pos=no",
            *loader,
            host["HOST_KAMAILIO"],
            *(["-L", host["HOST_MODULES"]] if host["HOST_MODULES"] else []),
            "-x",
            allocator,
        ]
        path = self.directory / "kamailio"
        words = " ".join(f"'{word}'" for word in command)
        path.write_text(f'#!/bin/sh\nexport LD_BIND_NOW=1\nexec {words} "$@"\n')
        path.chmod(0o755)
        return path

    def dumps(self, pid):
        return sorted(
            self.directory.glob(f"callgrind.{pid}.*"), key=lambda path: int(path.suffix[1:])
        )

    def settled_dumps(self, pid):
        """The dumps once no more come: each request makes one, some time after its reply."""
        end = time.monotonic() + 30
        before = None
        while time.monotonic() < end:
            dumps = self.dumps(pid)
            if dumps and dumps == before and "\ntotals: " in dumps[-1].read_text(errors="replace"):
                return dumps
            before = dumps
            time.sleep(0.3)
        raise SystemExit("host_profile: callgrind doesn't finish its dumps")


def file_label(path):
    name = pathlib.Path(path).name
    return re.sub(r"\.so[.\d]*$|-[\d.]+\.so$", "", name) if name != MODULE else "module"


def read_costs(path):
    """Instructions by file, and those that the module's functions spend in the C library."""
    own = collections.Counter()
    into = collections.Counter()
    where = {"ob": "", "fn": "", "cob": "", "cfn": ""}
    in_call = False
    for line in path.read_text(errors="replace").splitlines():
        name, found, value = line.partition("=")
        if found and name in where:
            where[name] = value
            if name == "fn":
                where["cob"] = where["ob"]
        elif found and name == "calls":
            in_call = True
        elif line[:1].isdigit() or line[:1] in "+-*":
            words = line.split()
            cost = int(words[1]) if len(words) > 1 else 0
            if not in_call:
                own[file_label(where["ob"])] += cost
            elif file_label(where["ob"]) == "module" and file_label(where["cob"]) != "module":
                into[file_label(where["cob"])] += cost
            if in_call:
                where["cob"] = where["ob"]
            in_call = False
    return own, into


def profile(server, runner, pid, loop):
    runner.run(loop, 20)
    before = server.settled_dumps(pid)
    runner.run(loop, REPEATS)
    after = server.settled_dumps(pid)
    if len(after) != len(before) + 1:
        raise SystemExit(f"host_profile: {len(after) - len(before)} dumps for one request")
    own, into = read_costs(after[-1])
    return (
        {name: cost / REPEATS for name, cost in own.items()},
        {name: cost / REPEATS for name, cost in into.items()},
    )


def print_profile(title, profiles):
    (_, (empty, _)), *loops = profiles.items()
    names = sorted(
        {name for own, _ in profiles.values() for name in own},
        key=lambda name: -max(own.get(name, 0) for own, _ in profiles.values()),
    )
    rows = []
    for loop, (own, into) in loops:
        net = {name: own.get(name, 0) - empty.get(name, 0) for name in names}
        library = sum(cost for name, cost in into.items() if name.startswith("libc"))
        host = sum(cost for name, cost in into.items() if not name.startswith("libc"))
        inside = net.get("module", 0)
        rows.append(
            [
                loop.split("__")[0],
                round(sum(net.values())),
                round(inside + library) if inside else "",
                round(host) if inside else "",
                round(sum(net.values()) - inside - library - host) if inside else "",
                ", ".join(f"{name} {net[name]:.0f}" for name in names if net[name] >= 20),
            ]
        )
    host_loops.print_table(
        title,
        [
            "instructions of one repeat",
            "all",
            "module, its libc included",
            "host, called by the module",
            "host, around the call",
            "by file",
        ],
        rows,
    )


def run(module, allocator, directory, groups, fillers, stock):
    routes = {"make_lite": host_cases.make_lite()}
    loops = [loop for group in groups for loop in group.loops if "db_text" not in loop.name]
    for loop in [loop for loop, _ in fillers] + loops:
        routes[loop.name] = loop.route()
    server = ProfiledServer(directory, module, routes, allocator, 1, stock)
    try:
        server.start(timeout=120)
        (pid,) = host_site.worker_pids(server)
        with server.phone("bench") as phone:
            if fillers:
                phone.request("OPTIONS", server.uri("make_lite"))
            runner = host_loops.Runner(server, phone)
            for loop, count in fillers:
                for _ in range(0, count, 100):
                    runner.run(loop, 100)
            for group in groups:
                profiles = {
                    loop.name: profile(server, runner, pid, loop)
                    for loop in group.loops
                    if loop in loops
                }
                print_profile(f"{group.title}, allocator {allocator}", profiles)
        trouble = server.complaints()
        if trouble:
            raise SystemExit(f"host_profile: the server complains: {trouble[:3]}")
    finally:
        server.kill()


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    if not shutil.which("valgrind"):
        raise SystemExit("host_profile: valgrind is missing (Debian package valgrind)")
    host_site.STORE_COUNTS = ()
    for groups, fillers, stock in profiled():
        for allocator in ALLOCATORS:
            with tempfile.TemporaryDirectory(prefix="tarn-profile-") as directory:
                run(sys.argv[1], allocator, directory, groups, fillers, stock)


if __name__ == "__main__":
    main()
