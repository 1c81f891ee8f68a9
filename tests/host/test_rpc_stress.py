"""Operators and calls at the same time: every command in a loop, several at once from different
processes, while workers insert, select, update and delete.

TARN_STRESS_SECONDS says for how long (5 by default).
"""

import concurrent.futures
import os
import random
import re
import threading
import time

from module_host import Call, Table, columns
from rpc_host import COMMANDS, Fault, info, jsonrpc, kamcmd, lines, processes, rows

SECONDS = float(os.environ.get("TARN_STRESS_SECONDS", "5"))
WORKERS = 4
PHONES = 6

# The server writes its log in pieces of 128 bytes, between which other processes write theirs. So
# names are short here, and messages of more than that are rare.
CALLS_TABLE = Table("calls", columns("id", "caller", "state", indexed=("id",)), max_rows=100000)
NOTES = Table("notes", columns("id", "key", "value"), 100000, "NOTE", use_index=True)
MEDIA = Table(
    "media",
    columns("id", "call", "caller", "callee", "inner", "side", "outer", "kind", "dynamic_kind"),
    max_rows=100000,
    ports=("dynamic", 4, 6),
)
# Rows come and change here and don't go, so that what a reader without a lock finds is foreseen.
STEADY = Table("steady", columns("key", "value"), max_rows=100000)
TABLES = [CALLS_TABLE, NOTES, MEDIA, STEADY]

# $hdr(X-Q) is a number from 100 to 249.
SIP_CALLS = {
    "add": 'tarn_memdb_insert("calls,$hdr(X-Q)|alice|new")',
    "find": 'tarn_memdb_select("calls,$hdr(X-Q)|*|*", "$avp(a)|$avp(b)|$avp(c)")',
    "change": 'tarn_memdb_update("calls,$hdr(X-Q)|*|*", "*|*|changed")',
    "remove": 'tarn_memdb_delete("calls,$hdr(X-Q)|*|*")',
    "add_note": 'tarn_memdb_insert("notes,|$hdr(X-Q)|new")',
    "find_notes": 'tarn_memdb_select("notes,*|*|*,3", "$avp(a)|$avp(b)|$avp(c)")',
    "remove_notes": 'tarn_memdb_delete("notes,*|*|*,3")',
    "add_media": 'tarn_memdb_insert("media,1|c$hdr(X-Q)|a|b|21$hdr(X-Q)|WAN||0|0")',
    "remove_media": 'tarn_memdb_delete("media,*|c$hdr(X-Q)|*|*|*|*|*|*|*")',
    "add_steady": 'tarn_memdb_insert("steady,$hdr(X-Q)|new")',
    "change_steady": 'tarn_memdb_update("steady,$hdr(X-Q)|*,3", "*|changed")',
}

# Three commands at once, each on a road of its own; {} is the number of the round.
TOGETHER = [
    (("reload_table", "calls"), ("reload_table", "calls"), ("show", "calls")),
    (("clear_tbl", "notes"), ("clear_tbl", "notes"), ("show_tbl_info", "notes")),
    (("sync", "calls"), ("show", "calls"), ("show_p", "calls")),
    (("insert", "notes,|a{}|x"), ("insert", "notes,|b{}|x"), ("insert", "notes,|c{}|x")),
    (
        ("delete", "calls,*|*|changed,5"),
        ("update", "calls,*|*|new,5", "*|operator|*"),
        ("select", "calls,*|*|*,200"),
    ),
    (("nl_select", "steady,*|*,200"), ("insert", "steady,{}|x"), ("update", "steady,*|*,9", "*|y")),
    (("show_pm_info",), ("show_tbls_lst",), ("show_cmds",)),
    (("reload_table", "media"), ("clear_tbl", "media"), ("delete", "media,*|*|*|*|*|*|*|*|*,5")),
    (("sync", "media"), ("reload_table", "notes"), ("sync", "notes")),
    (("clear_all",), ("clear_all",), ("show", "media")),
]

EXPECTED = {
    "NOTICE": [
        r" {11}NOTE - \(\d+\) (Inserting notes,\|\d+\|new|Deleting notes,\d+\|\w+\|\w+)",
        r" {7}NOTE - \(\d+\) RPC Inserting notes,\|\w+\|x",
        r" {4}NOTE - \(0\) RPC Clearing table notes",
    ],
    # A store closes its file after it gives the lock back, so that a reload can find the end of the
    # file missing.
    "WARNING": [r"File '.*"],
    "ERROR": [
        r"Size mismatch",
        r"Wrong number of fields in field list: .* \| \(null\)\n",
        r"Empty fields are not allowed in INSERT operation\n",
        r"Could not parse '.*'\n",
        # Several JSON-RPC processes wake for one datagram.
        r"recvfrom: \(11\) Resource temporarily unavailable\n",
    ],
}
# The one common message of more than 128 bytes: its second piece may stand behind another message.
SECOND_PIECE = r"(.*\.refused'\n)?"


def unexpected(server):
    found = [
        entry
        for entry in server.entries()
        if entry.level in ("ALERT", "BUG", "CRITICAL", "ERROR", "WARNING")
        or (entry.module == "tarn_memdb" and entry.level != "INFO")
    ]
    return {
        (entry.level, entry.module, entry.text)
        for entry in found
        if not any(
            re.fullmatch(f"(?:{pattern}){SECOND_PIECE}", entry.text)
            for pattern in EXPECTED.get(entry.level, ())
        )
        and "load_tm function" not in entry.text
    }


class Roads:
    """Three ways to one server, of which each command goes another one in every round."""

    def __init__(self, server):
        self.roads = (jsonrpc, jsonrpc, kamcmd)
        self.server = server
        self.ran = dict.fromkeys(COMMANDS, 0)

    def round(self, pool, commands, turn):
        meeting = threading.Barrier(len(commands))

        def one(road, command, arguments):
            meeting.wait(20)
            return command, road(self.server, command, *(a.format(turn) for a in arguments))

        futures = [
            pool.submit(one, self.roads[(at + turn) % len(self.roads)], command, arguments)
            for at, (command, *arguments) in enumerate(commands)
        ]
        for future in futures:
            command, reply = future.result()
            self.ran[command] += 1
            assert not isinstance(reply, Fault), (command, reply)


def load(server, number, done):
    """Calls until done, and how many there were of each result."""
    chosen = random.Random(number)
    results = {}
    with server.phone() as phone:
        while not done.is_set():
            name = chosen.choice(list(SIP_CALLS))
            rc = server.call(name, str(chosen.randrange(100, 250)), phone=phone, timeout=15.0).rc
            results[(name, rc > 0)] = results.get((name, rc > 0), 0) + 1
            # Leaves room for the operators on a machine with few cores.
            time.sleep(0.001)
    return results


def start(host):
    return host(
        tables=TABLES,
        calls={name: Call(text) for name, text in SIP_CALLS.items()},
        children=WORKERS,
        params={"store_tbl_interval": 1},
        modparams=['modparam("jsonrpcs", "dgram_workers", 3)'],
    )


def cleared(server):
    """The shared memory in use when all tables are empty, and the port maps then."""
    jsonrpc(server, "clear_all")
    return server.shared_memory_used(), lines(server, "show_pm_info")


def expect_workers_of_each_kind(server, known):
    """Several processes ran commands and calls."""
    by = {
        name: {pid for pid, text in known.items() if name in text}
        for name in ("udp receiver", "ctl handler", "JSONRPCS")
    }
    audits = server.entries("tarn_memdb", "NOTICE")
    operators = {entry.pid for entry in audits if ") RPC " in entry.text}
    callers = {entry.pid for entry in audits if ") RPC " not in entry.text}
    assert operators <= by["ctl handler"] | by["JSONRPCS"]
    assert operators >= by["ctl handler"] and len(operators & by["JSONRPCS"]) >= 2
    assert callers <= by["udp receiver"] and len(callers) >= 2


def test_commands_of_every_kind_under_load(host):
    server = start(host)
    # A first pass over everything, so that what the host itself keeps for later is there.
    roads = Roads(server)
    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        for turn, commands in enumerate(TOGETHER, 1000000):
            roads.round(pool, commands, turn)
    for name in SIP_CALLS:
        server.call(name, "100")
    before = cleared(server)
    known = processes(server)

    roads = Roads(server)
    done = threading.Event()
    with concurrent.futures.ThreadPoolExecutor(PHONES + 3) as pool:
        phones = [pool.submit(load, server, number, done) for number in range(PHONES)]
        try:
            end = time.monotonic() + SECONDS
            turn = 0
            while time.monotonic() < end or turn < 3 * len(TOGETHER):
                roads.round(pool, TOGETHER[turn % len(TOGETHER)], turn)
                turn += 1
                assert server.running
        finally:
            done.set()
        results = [phone.result() for phone in phones]

    # Everything took part.
    assert min(roads.ran.values()) > 0
    total = {}
    for result in results:
        for key, count in result.items():
            total[key] = total.get(key, 0) + count
    assert {name for name, worked in total if worked} == set(SIP_CALLS)

    # The server is as it was.
    assert processes(server) == known
    expect_workers_of_each_kind(server, known)
    assert unexpected(server) == set()

    # Counts, rows and files agree.
    for table in TABLES:
        assert lines(server, "sync", table.name)[0] == f"Table: {table.name}"
        shown = rows(server, table.name)
        assert info(server, table.name)["Row count"] == str(len(shown))
        assert server.rows(table.name) == shown[::-1]

    # A clear gives all of it back.
    assert cleared(server) == before
    for table in TABLES:
        assert server.rows(table.name) == [] and server.rows(table.name, backup=True) == []
    assert server.stop() == 0
    assert unexpected(server) == set()
