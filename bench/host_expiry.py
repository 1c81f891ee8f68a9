#!/usr/bin/env python3
"""Measures the expiry of rows by an indexed column of minutes, and prints a table.

Usage: bench/host_expiry.py MODULE.so

100,000 rows end within an hour. Timed are the delete of one minute's rows through the index and by
a walk of the table, of a minute without rows, and the minutes of a week without rows, as after a
start. TARN_BENCH_ALLOCATORS is that of host_bench.py.
"""

import os
import statistics
import sys
import tempfile

sys.dont_write_bytecode = True

import host_loops  # noqa: E402  (no byte code of these)
import host_site  # noqa: E402
from host_site import host_server, schema_text  # noqa: E402

ROWS = 100000
MINUTES = 60
FIRST = 29000000
WEEK = 7 * 24 * 60
COLUMNS = ("user 63 1", "contact 127 0")
TABLES = {"indexed": 1, "walked": 0}


class ExpiryServer(host_server.Server):
    """A server whose route deletes a number of minutes and replies how long that took."""

    def __init__(self, directory, module, allocator):
        super().__init__(directory, self._config, memory=256, private_memory=16)
        self.module = os.path.abspath(module)
        starter = self.directory / "kamailio"
        starter.write_text(f'#!/bin/sh\nexec "{self.kamailio}" -x {allocator} "$@"\n')
        starter.chmod(0o755)
        self.kamailio = str(starter)
        for name in ("tables", "backup"):
            (self.directory / name).mkdir()
        tables = [
            schema_text.table(name, (*COLUMNS, f"until 10 {index}"), None, MAX_ROWS=ROWS)
            for name, index in TABLES.items()
        ]
        where = (f"{self.directory}/tables/", f"{self.directory}/backup/")
        (self.directory / "schema.cfg").write_text(schema_text.schema(*where, tables))
        rows = [f"user{n}|sip:user{n}@10.0.0.1|{FIRST + n * 617 % MINUTES}" for n in range(ROWS)]
        for name in TABLES:
            host_site.write_file(self.directory / f"tables/{name}.tbl", ["Version 1", *rows])

    def _config(self, _):
        lines = ["#!KAMAILIO", "debug=2", "log_stderror=yes", "children=1", "disable_tcp=yes"]
        lines += ["auto_aliases=no", "disable_core_dump=yes", "max_while_loops=20000"]
        lines.append(f"listen=udp:{self.address}:{self.port}")
        lines += [f'loadmodule "{name}"' for name in ("pv.so", "sl.so", "textops.so", self.module)]
        lines += [
            f'modparam("tarn_memdb", "cfg_file_path", "{self.directory}/schema.cfg")',
            'modparam("tarn_memdb", "store_tbl_interval", 36000)',
            "request_route {",
            f'  if ($rU == "{self.READY_USER}") {{ sl_send_reply("200", "ready"); exit; }}',
            "  $var(i) = $(hdr(X-From){s.int});",
            "  $var(end) = $var(i) + $(hdr(X-Count){s.int});",
            "  $var(start) = $TV(Sm);",
        ]
        for name in TABLES:
            lines += [
                f'  if ($rU == "{name}") {{',
                "    while ($var(i) < $var(end)) {",
                f'      tarn_memdb_delete("{name},*|*|$var(i)");',
                "      $var(i) = $var(i) + 1;",
                "    }",
                "  }",
            ]
        lines += [
            r'  append_to_reply("X-Clock: $var(start) $TV(Sm)\r\n");',
            '  sl_send_reply("200", "done");',
            "}",
        ]
        return "\n".join(lines) + "\n"

    def microseconds(self, phone, table, first, count=1):
        # The clock has nanoseconds.
        headers = {"X-From": str(first), "X-Count": str(count)}
        reply = phone.request("OPTIONS", self.uri(table), headers, timeout=10.0)
        start, end = map(int, reply.get("x-clock").split())
        return (end - start) / 1000


def measure(module, allocator):
    median = statistics.median
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as directory:
        server = ExpiryServer(directory, module, allocator).start(timeout=60)
        try:
            with server.phone() as phone:

                def times(table, firsts, count=1):
                    return [server.microseconds(phone, table, each, count) for each in firsts]

                empty = {
                    name: median(times(name, [FIRST - 100] * 21, 100 if index else 1))
                    for name, index in TABLES.items()
                }
                week = median(times("indexed", [FIRST - WEEK] * 5, WEEK))
                full = {name: median(times(name, range(FIRST, FIRST + 30))) for name in TABLES}
            trouble = server.entries(level="ERROR")
            if trouble:
                raise host_loops.WrongResult(f"the server complains: {trouble[0].text}")
        finally:
            server.kill()
    host_loops.print_table(
        f"Expiry of {ROWS:,} rows that end within an hour (allocator {allocator})",
        ["", "through the index, us", "by a walk, us"],
        [
            [f"a minute of {ROWS // MINUTES:,} rows", full["indexed"], full["walked"]],
            ["a minute without rows", empty["indexed"] / 100, empty["walked"]],
            ["a week of minutes without rows", week, "-"],
        ],
    )


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    for allocator in os.environ.get("TARN_BENCH_ALLOCATORS", "fm qm").split():
        measure(sys.argv[1], allocator)


if __name__ == "__main__":
    main()
