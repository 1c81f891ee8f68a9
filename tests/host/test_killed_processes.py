"""What a process of the server that is killed leaves of the tables: rows as they were written.

The main process ends the others then, wherever they are, and stores what has changed. So it does
when it is stopped itself.
"""

import os
import pathlib
import signal
import time

import pytest
import reloads
from module_host import Column, Table, host_server
from stamped_rows import FIRST_ROWS, INSERT_WITHOUT_END, STAMPED, row

WRITERS = 3


def descendants(server):
    children = pathlib.Path(f"/proc/{server.process.pid}/task/{server.process.pid}/children")
    return [int(pid) for pid in children.read_text().split()]


def busiest(server):
    """The worker that has used most of the processor."""

    def ticks(pid):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()
        return int(fields[11]) + int(fields[12])

    return max(descendants(server), key=ticks)


def kill(server, pid):
    """Kills one process, and gives the seconds that the others take to end."""
    server.expected_signs = (") ALERT: ",)
    began = time.monotonic()
    os.kill(pid, signal.SIGKILL)
    assert server.process.wait(20) != 0
    return time.monotonic() - began


def kill_a_worker(server):
    assert kill(server, busiest(server)) < 10


def stop(server):
    assert server.stop() == 0


@pytest.mark.parametrize("end", [kill_a_worker, kill_a_worker, stop])
def test_workers_ended_among_their_inserts_leave_whole_rows(host, end):
    server = host(
        start=False,
        tables=[STAMPED],
        calls={"insert": INSERT_WITHOUT_END},
        params={"store_tbl_auto": 0},
        modparams=("max_while_loops=100000000",),
        children=WRITERS,
        memory=256,
    )
    server.write_rows("stamped", FIRST_ROWS)
    server.start()
    phones = [server.phone(f"p{writer}") for writer in range(WRITERS)]
    for writer, phone in enumerate(phones):
        with phone, pytest.raises(host_server.host_sip.NoReply):
            phone.request("OPTIONS", server.uri("insert"), {"X-Q": f"w{writer}"}, timeout=0.1)
    end(server)
    stored = server.rows("stamped")
    assert stored[: len(FIRST_ROWS)] == FIRST_ROWS
    added = {f"w{writer}": [] for writer in range(WRITERS)}
    for line in stored[len(FIRST_ROWS) :]:
        added[line.partition(".")[0]].append(line)
    for writer, rows in added.items():
        assert rows == [row(f"{writer}.{number}") for number in range(1, len(rows) + 1)]
    assert len(stored) > len(FIRST_ROWS)


@pytest.mark.parametrize("part", [0.0, 0.3, 0.6, 0.8])
def test_a_process_killed_among_a_reload_leaves_the_files_as_they_are(host, part):
    many = Table("many", (Column("key"), Column("text")), max_rows=1_000_000)
    server = host(start=False, tables=[many], memory=256)
    server.write_rows("many", (f"{number}|text of {number}" for number in range(300_000)))
    server.write_rows("many", ["generation|before"], backup=True)
    before = server.file_states()
    size = server.main_file("many").stat().st_size
    server.start()
    reload = reloads.Reload(server, "many")
    reload.wait_until_read(max(part * size, 1))
    kill(server, reload.pid)
    assert server.file_states() == before
    assert server.said("WARNING") == [
        "Table 'many' was being reloaded when the server stopped. Its files stay as they are\n"
    ]
