#!/usr/bin/env python3
"""Measures starts, reloads and checks of large tables on a real server, beside a bare getline loop.

Usage: bench/load_bench.py MODULE.so TARN_MEMDB_CHECK GETLINE_LOOP

All figures are processor time: a start's is that of the main process, less that of a start
without rows, and a reload's that of the process that serves the command. The table's lock is held
throughout a reload.

Environment:
  TARN_LOAD_ROWS         numbers of rows (default "10000 100000 1000000")
  TARN_LOAD_ROUNDS       rounds of each (default 5)
  TARN_BENCH_ALLOCATORS  the host's allocators, in order (default "fm qm")
"""

import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True

import host_loops  # noqa: E402  (no byte code of these)
import host_site  # noqa: E402

COLUMNS = (*host_site.FLAT_COLUMNS, "expires 15 0")
FOREIGN = 617  # without a common divisor with the numbers of rows: keys come in no order


class LoadServer(host_site.host_server.Server):
    """A server with one table and no script."""

    def __init__(self, directory, module, allocator, rows):
        super().__init__(directory, self._config, memory=64 + rows // 2500)
        self.module = pathlib.Path(module).resolve()
        self.kamailio = str(self._starter(allocator))
        self.schema = self.directory / "schema.cfg"
        self.file = self.directory / "tables" / "large.tbl"
        for name in ("tables", "backup"):
            (self.directory / name).mkdir()
        large = host_site.table_text("large", COLUMNS, max(rows, 1))
        folders = (f"{self.directory}/tables/", f"{self.directory}/backup/")
        self.schema.write_text(host_site.schema_text.schema(*folders, [large]))

    def _starter(self, allocator):
        path = self.directory / "kamailio"
        path.write_text(f'#!/bin/sh\nexec "{host_site.TOOLS}/host-kamailio" -x {allocator} "$@"\n')
        path.chmod(0o755)
        return path

    def _config(self, _):
        lines = ["#!KAMAILIO", "debug=2", "log_stderror=yes", "children=1", "disable_tcp=yes"]
        lines += ["auto_aliases=no", "disable_core_dump=yes"]
        lines.append(f"listen=udp:{self.address}:{self.port}")
        lines += [f'loadmodule "{name}"' for name in ("pv", "sl", "jsonrpcs", self.module)]
        lines += [
            'modparam("jsonrpcs", "transport", 4)',
            f'modparam("jsonrpcs", "dgram_socket", "{self.json_socket}")',
            f'modparam("tarn_memdb", "cfg_file_path", "{self.schema}")',
            f'modparam("tarn_memdb", "private_ranges_file_path", "{self.directory}/none")',
            'modparam("tarn_memdb", "store_tbl_interval", 36000)',
            'request_route { sl_send_reply("200", "ready"); }',
        ]
        return "\n".join(lines) + "\n"

    def rpc_pid(self):
        listed = self.jsonrpc("core.psx")["result"]
        return next(process["PID"] for process in listed if "JSONRPCS" in process["DSC"])


def large_file(path, count):
    rows = ((n * FOREIGN) % count for n in range(count))
    lines = ("|".join((*host_site.row(n), "3600")) for n in rows)
    host_site.write_file(path, ["Version 1", *lines])


def seconds_of(command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    told = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, told


class LoadBench:
    def __init__(self, module, check, getline):
        self.module, self.check, self.getline = module, check, getline
        rows = os.environ.get("TARN_LOAD_ROWS", "10000 100000 1000000")
        self.rows = [int(number) for number in rows.split()]
        self.rounds = int(os.environ.get("TARN_LOAD_ROUNDS", "5"))
        self.allocators = os.environ.get("TARN_BENCH_ALLOCATORS", "fm qm").split()

    def started(self, allocator, text, rows):
        """Seconds of a start, of a reload and of a check with the table's file linked from text."""
        with tempfile.TemporaryDirectory(prefix="tarn-load-", dir=text.parent) as directory:
            server = LoadServer(directory, self.module, allocator, rows)
            os.link(text, server.file)
            try:
                server.start(timeout=60)
                pid = server.rpc_pid()
                start = host_site.cpu_nanoseconds(server.process.pid) / 1e9
                before = host_site.cpu_nanoseconds(pid)
                server.jsonrpc("tarn_memdb.reload_table", "large", timeout=60)
                reload = (host_site.cpu_nanoseconds(pid) - before) / 1e9
            finally:
                server.kill()
            check, told = seconds_of([self.check, "--memory", "16384", str(server.schema)])
            if not told.endswith("clean\n"):
                raise host_loops.WrongResult(f"the check tells {told[:200]}")
            return start, reload, check

    def figures(self, allocator, count):
        with tempfile.TemporaryDirectory(prefix="tarn-load-") as directory:
            none, text = (pathlib.Path(directory) / name for name in ("none", "text"))
            large_file(none, 0)
            large_file(text, count)
            rounds = []
            for _ in range(self.rounds):
                empty = self.started(allocator, none, 0)
                start, reload, check = self.started(allocator, text, count)
                bare = int(seconds_of([self.getline, str(text)])[1]) / 1e9
                rounds.append((bare, start - empty[0], reload, check))
            columns = zip(*rounds, strict=True)
            bare, *others = [statistics.median(column) * 1e3 for column in columns]
            row = [count, text.stat().st_size / 1e6, bare]
            for one in others:
                row += [one, one / bare]
            return row

    def run(self):
        for allocator in self.allocators:
            host_loops.print_table(
                f"Start, reload and check of a table, processor time (allocator {allocator})",
                ["rows", "MB", "getline, ms", "start, ms", "of getline"]
                + ["reload, ms", "of getline", "check, ms", "of getline"],
                [self.figures(allocator, count) for count in self.rows],
            )


def main():
    if len(sys.argv) != 4 or sys.argv[1].startswith("-"):
        raise SystemExit(__doc__)
    module, check, getline = sys.argv[1:]
    LoadBench(module, check, getline).run()


if __name__ == "__main__":
    main()
