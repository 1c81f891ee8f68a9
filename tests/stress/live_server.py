"""Servers under load for the stress runs, with either of the host's allocators, and what has to
hold of each: no worker ends with a signal, the allocator has found nothing to complain of, no
memory is gone, nobody has met a half filled row, and the stop is a clean one."""

import contextlib
import pathlib
import re
import shutil
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "host"))

from module_host import ModuleHost, host_server  # noqa: E402  (found by way of the line above)

ALLOCATORS = ("qm", "fm")

COMPLAINTS = re.compile(r"\) (?:BUG|CRITICAL|ALERT): .*")
# Of a row in which neither flag stands. Each row is inserted with one, which no update touches.
HALF_FILLED = "Subnet flag and DN flag are not set\n"
# What the main process says of a worker that is gone.
LOST = re.compile(r"exited by a signal (\d+)|core was (?:not )?generated")


class Trouble(Exception):
    """Something that must not be."""


@contextlib.contextmanager
def server(allocator, fill, **setup):
    """A started server with the allocator; fill(server) writes the files that it starts with."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="tarn-stress-"))
    program = directory / "kamailio"
    program.write_text(f'#!/bin/sh\nexec "{host_server.TOOLS}/host-kamailio" -x {allocator} "$@"\n')
    program.chmod(0o755)
    made = ModuleHost(directory, kamailio=program, **setup)
    try:
        fill(made)
        yield made.start()
    finally:
        made.kill()
        shutil.rmtree(directory, ignore_errors=True)


def check_memory(made, before):
    """Rows that a reader was still on when they went are given back at one of the next stores."""
    until = time.monotonic() + 15
    while True:
        memory = made.jsonrpc("core.shmmem")["result"]
        used, real_used = memory["used"], memory["real_used"]
        if used > real_used or real_used + memory["free"] > memory["total"]:
            raise Trouble(f"the allocator's figures don't fit together: {memory}")
        if memory["free"] >= before["free"] / 2:
            return memory
        if time.monotonic() > until:
            raise Trouble(f"half of the memory is gone: {before}, then {memory}")
        time.sleep(0.2)


def expect_no_worker_lost(made):
    if signals := LOST.findall(made.log()):
        raise Trouble(f"a worker ended with signal {signals[0]}")


def stop(made):
    if (status := made.stop()) != 0:
        raise Trouble(f"the server ended with status {status}")
    if complaint := COMPLAINTS.search(made.log()):
        raise Trouble(f"the log says {complaint[0]!r}")
    if half_filled := made.log().count(HALF_FILLED):
        raise Trouble(f"{half_filled} times a reader met a half filled row")


def run_with_each_allocator(run):
    """The status of a program that runs a load with each."""
    status = 0
    for allocator in ALLOCATORS:
        try:
            run(allocator)
        except Trouble as trouble:
            print(f"stress: {allocator}: {trouble}", file=sys.stderr)
            status = 1
    return status
