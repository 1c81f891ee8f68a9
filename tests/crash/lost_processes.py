"""Workers killed, or stopped with the server, among their inserts: the main process stores their
rows, each of them whole."""

import collections
import os
import pathlib
import random
import signal
import time

import site_servers as site
from module_host import host_server
from stamped_rows import FIRST_ROWS, INSERT_WITHOUT_END, STAMPED, row

WRITERS = 3


def run(rounds):
    added = sum(_round(_kill_a_worker) + _round(_stop) for _ in range(rounds))
    return (
        f"{rounds} workers killed and {rounds} servers stopped among inserts,"
        f" {added} rows stored, each whole"
    )


def _kill_a_worker(made):
    os.kill(random.choice(_workers(made)), signal.SIGKILL)
    site.check(made.process.wait(20) != 0, "the server went on without a worker")


def _stop(made):
    site.check(made.stop() == 0, "a stop among inserts failed")
    site.check_sound(made)


def _round(end):
    setup = {
        "tables": [STAMPED],
        "calls": {"insert": INSERT_WITHOUT_END},
        "params": {"store_tbl_auto": 0},
        "modparams": ("max_while_loops=100000000",),
        "children": WRITERS,
        "memory": 256,
    }
    with site.server(**setup) as made:
        made.write_rows("stamped", FIRST_ROWS)
        made.start()
        for writer in range(WRITERS):
            _insert_without_end(made, f"w{writer}")
        time.sleep(random.uniform(0.0, 0.3))
        end(made)
        return _check(made.rows("stamped"))


def _insert_without_end(made, writer):
    with made.phone() as phone:
        try:
            phone.request("OPTIONS", made.uri("insert"), {"X-Q": writer}, timeout=0.1)
        except host_server.host_sip.NoReply:
            return
    raise site.Deviation("inserts without end came to one")


def _workers(made):
    children = pathlib.Path(f"/proc/{made.process.pid}/task/{made.process.pid}/children")
    pids = [int(pid) for pid in children.read_text().split()]
    return [pid for pid in pids if _ticks(pid) > 0] or pids


def _ticks(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()
    return int(fields[11]) + int(fields[12])


def _check(stored):
    """The rows that were there, and of each writer all rows up to one of them; tells how many."""
    site.check(stored[: len(FIRST_ROWS)] == FIRST_ROWS, "rows that were there are gone")
    of_writer = collections.defaultdict(list)
    for line in stored[len(FIRST_ROWS) :]:
        of_writer[line.partition(".")[0]].append(line)
    for writer, lines in of_writer.items():
        wanted = [row(f"{writer}.{number}") for number in range(1, len(lines) + 1)]
        site.check(lines == wanted, writer, "has rows that it didn't write")
    return len(stored) - len(FIRST_ROWS)
