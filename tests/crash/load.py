"""Tables whose files tell which generation they are, and the load that writes and stores them.

Every row of `stamps` carries the number of the update that wrote it, and an update writes all
rows. `journal` only grows, by rows that are numbered. So the bytes of every legal file follow from
a number, and a file is judged by comparing bytes.
"""

import json
import os
import socket
import threading

import site_servers as site
import table_model
from module_host import Call, Column, Table

ROWS = 1200
SLICE = 300  # rows that one reply over the control socket can carry
JOURNAL_LIMIT = 2500

STAMPS = Table(
    "stamps",
    (Column("number"), Column("slice", indexed=True), Column("gen"), Column("filler", 63)),
    max_rows=100000,
)
JOURNAL = Table(
    "journal",
    (Column("id"), Column("slice", indexed=True), Column("number"), Column("filler", 63)),
    max_rows=100000,
    use_index=True,
)
QUIET = Table("quiet", (Column("a"), Column("b")))
TABLES = (STAMPS, JOURNAL, QUIET)
QUIET_FILE = table_model.text([("never", "changed")])

INSERT = Call('tarn_memdb_insert("journal,$hdr(X-Q)")')


def filler(number):
    return "abcdefgh"[number % 8] * (8 + number % 41)


def stamp_rows(gen):
    return [(str(n), str(n // SLICE), str(gen), filler(n)) for n in range(ROWS)]


class Stopped(Exception):
    """The server is gone, or this part of the load has to end."""


class Client:
    """JSON-RPC over one socket, which stops waiting when it is told to."""

    def __init__(self, made, name, ended):
        self.ended = ended
        self.path = made.directory / f"{name}.sock"
        self.path.unlink(missing_ok=True)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(self.path))
        self.socket.settimeout(0.1)
        self.target = str(made.json_socket)

    def close(self):
        self.socket.close()
        self.path.unlink(missing_ok=True)

    def __call__(self, command, *arguments):
        request = {"jsonrpc": "2.0", "method": "tarn_memdb." + command, "id": 1}
        request["params"] = list(arguments)
        try:
            self.socket.sendto(json.dumps(request).encode(), self.target)
        except OSError:
            raise Stopped from None
        while True:
            try:
                reply = json.loads(self.socket.recv(1 << 16))
            except TimeoutError:
                if self.ended.is_set():
                    raise Stopped from None
                continue
            site.check("error" not in reply, command, arguments, "gave", reply)
            return


class Load:
    """Writes and stores until it is stopped, and keeps what was sent and what was answered."""

    def __init__(self, made, stamps, journal, gen):
        self.made = made
        self.stamps = stamps  # the rows as they were loaded
        self.journal = list(journal)  # the rows as loaded, then those that were inserted
        self.first_gen = gen
        self.sent_gen = self.acked_gen = gen
        self.stored_gens = [gen]  # whose sync was answered
        self.acked_rows = len(self.journal)
        self.stored_rows = [self.acked_rows]
        self.rows_by_then = [self.acked_rows]  # sent when that sync was answered
        self.next_id = max((int(row[0]) for row in journal), default=0) + 1
        self.ended = threading.Event()
        self.trouble = []
        self.threads = [
            threading.Thread(target=self._guard, args=(work,))
            for work in (self._stamp, self._insert)
        ]

    def start(self):
        for thread in self.threads:
            thread.start()

    def end(self):
        self.ended.set()
        for thread in self.threads:
            thread.join()
        if self.trouble:
            raise self.trouble[0]

    def _guard(self, work):
        try:
            work()
        except Stopped:
            pass
        except BaseException as trouble:  # pylint: disable=broad-exception-caught
            # Whatever it is, the thread that waits for this one raises it again.
            self.trouble.append(trouble)

    def _stamp(self):
        rpc = Client(self.made, f"load{os.getpid()}", self.ended)
        try:
            while not self.ended.is_set():
                self.sent_gen += 1
                rpc("update", "stamps,*|*|*|*", f"*|*|{self.sent_gen}|*")
                self.acked_gen = self.sent_gen
                rpc("sync", "stamps")
                self.stored_gens.append(self.acked_gen)
                rows = self.acked_rows
                rpc("sync", "journal")
                self.rows_by_then.append(len(self.journal))
                self.stored_rows.append(rows)
        finally:
            rpc.close()

    def _insert(self):
        with self.made.phone() as phone:
            while not self.ended.is_set():
                number = len(self.journal)
                row = (str(self.next_id), str(number // SLICE), str(number), filler(number))
                self.journal.append(row)
                self.next_id += 1
                try:
                    # Short of the phone's first repetition, which would insert once more.
                    result = self.made.call(
                        "insert", "|" + "|".join(row[1:]), phone=phone, timeout=0.45
                    )
                except (AssertionError, OSError):
                    raise Stopped from None
                site.check(result.rc == int(row[0]), "insert", row, "gave", result)
                self.acked_rows = len(self.journal)

    def stamps_text(self, gen):
        if gen == self.first_gen:
            return table_model.text(self.stamps)
        return table_model.text([(row[0], row[1], str(gen), row[3]) for row in self.stamps])

    def journal_text(self, rows):
        return table_model.text(self.journal[:rows])


def loaded_gen(rows):
    """The generation of loaded stamps, all of one."""
    gens = {row[2] for row in rows}
    site.check(len(gens) <= 1, "a file of several generations:", gens)
    return int(gens.pop()) if gens else 0


def server():
    """A server with the tables and the call of the load, which stores each second."""
    return site.server(
        tables=TABLES,
        calls={"insert": INSERT},
        params={"store_tbl_interval": 1},
        children=2,
        memory=32,
    )


def write_first(made):
    """The files that a run begins with: two generations of one table, one of another."""
    made.main_file("stamps").write_bytes(table_model.text(stamp_rows(2)))
    made.backup_file("stamps").write_bytes(table_model.text(stamp_rows(1)))
    made.main_file("journal").write_bytes(table_model.HEAD)
    made.backup_file("journal").unlink(missing_ok=True)
    made.main_file("quiet").write_bytes(QUIET_FILE)


def check_rows(made, table, rows):
    """Compares a table with what it should hold; its rows come slice by slice."""
    found = []
    for part in sorted({row[1] for row in rows}, key=int):
        found += site.select(made, table, slice=part)
    expected = sorted(rows, key=lambda row: int(row[1]))
    site.check(found == expected, table, "holds", len(found), "rows, expected", len(rows))
    told = site.rpc_host.info(made, table)["Row count"]
    site.check(told == str(len(rows)), table, "counts", told, "rows, expected", len(rows))
