"""What a real server makes of a set of files: its start, the files behind it, and a store."""

import dataclasses
import os
import pathlib
import re
import stat
import sys

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests/host")]

import host_server  # noqa: E402  (found by way of the line above)
import module_host  # noqa: E402
import rpc_host  # noqa: E402

TOO_LONG = 0.6  # seconds in which a start that waits for ever isn't over


@dataclasses.dataclass
class SeenTable:
    rows: int
    max_rows: int
    columns: int
    was_inserted: bool
    main: bytes  # after the store; None if there is no file
    backup: bytes


@dataclasses.dataclass
class Seen:
    start: str  # works, fails or hangs
    before: dict  # entries of the folders
    after: dict
    tables: dict  # by name
    ranges: dict  # lists of private ranges, by map


def entry(path):
    mode = path.lstat().st_mode
    if stat.S_ISLNK(mode):
        return ("link", os.readlink(path))
    if stat.S_ISREG(mode):
        return ("file", path.read_bytes())
    return ("other", stat.S_IFMT(mode))


def entries(roots):
    """All that stands in the folders, by path; of directories in them, that they are there."""
    return {
        str(path): entry(path)
        for root in roots
        if root.is_dir()
        for path in sorted(root.rglob("*"))
    }


def read(path):
    return path.read_bytes() if path.is_file() else None


class SetHost(module_host.ModuleHost):
    def __init__(self, made):
        program = made.directory / "server"
        command = f'exec "{host_server.TOOLS}/host-kamailio" -x {made.allocator} "$@"'
        program.write_text(f"#!/bin/sh\n{command}\n")
        program.chmod(0o755)
        super().__init__(
            made.directory,
            kamailio=program,
            memory=made.memory or 16,
            params={"cfg_file_path": str(made.schema)},
        )


def watch(made, tables, expects_hang=False):
    """Starts a server on the set, stores a new row in each of the tables, and tells it all.

    tables has the paths of main file and backup by the table's name.
    """
    server = SetHost(made)
    before = entries(made.roots())
    seen = Seen("works", before, {}, {}, {})
    try:
        try:
            server.start(timeout=TOO_LONG if expects_hang else 20.0)
        except host_server.StartFailed:
            seen.start = "fails"
        except host_server.ServerTrouble:
            seen.start = "hangs"
        seen.after = entries(made.roots())
        if seen.start == "works":
            seen.ranges = private_ranges(server)
            for name, files in tables.items():
                seen.tables[name] = store_one_more(server, name, *files)
    finally:
        server.kill()
    return seen


def private_ranges(server):
    """The private ranges of each map, in their order."""
    ranges = {}
    for line in rpc_host.lines(server, "show_pm_info"):
        if found := re.match(r"(Dynamic|Static) (Internal|External) Range:", line):
            word = {"Internal": "INT", "External": "EXT"}[found[2]]
            present = ranges.setdefault(word if found[1] == "Dynamic" else f"STATIC_{word}", [])
        elif re.fullmatch(r"(-?\d+ ){9}-?\d+", line):
            present.append([int(port) for port in line.split() if port != "-1"])
    return ranges


def store_one_more(server, name, main, backup):
    told = rpc_host.info(server, name)
    columns = int(told["Number of columns"])
    row = "|".join(["n9"] * columns)
    reply = rpc_host.jsonrpc(server, "insert", f"{name},{row}")
    rpc_host.jsonrpc(server, "sync", name)
    return SeenTable(
        rows=int(told["Row count"]),
        max_rows=int(told["Max rows"]),
        columns=columns,
        was_inserted=not isinstance(reply, rpc_host.Fault),
        main=read(main),
        backup=read(backup),
    )
