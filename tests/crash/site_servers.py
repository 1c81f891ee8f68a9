"""Servers for the crash runs, the checks that all of them share, and mounts of their own."""

import contextlib
import ctypes
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import module_host
import rpc_host
import table_model

NEW_NAMESPACE, NEW_USER = 0x20000, 0x10000000

# None of these belongs in a log, whatever happens to the files.
CRASH_SIGNS = ("killed by a signal", "core dumped", ") BUG: ", ") ALERT: ", "*** ")


class Deviation(AssertionError):
    """The server did what the rules don't allow."""


def check(fine, *told):
    if not fine:
        raise Deviation(" ".join(str(part) for part in told))


def own_mounts():
    """Makes a mount namespace for this process and its children, so that mounts end with them."""
    libc = ctypes.CDLL(None, use_errno=True)
    user, group = os.getuid(), os.getgid()
    if libc.unshare(NEW_NAMESPACE) != 0:
        if libc.unshare(NEW_NAMESPACE | NEW_USER) != 0:
            reason = os.strerror(ctypes.get_errno())
            raise SystemExit(f"crash: no mount namespace to be had: {reason}")
        pathlib.Path("/proc/self/setgroups").write_text("deny")
        pathlib.Path("/proc/self/uid_map").write_text(f"0 {user} 1")
        pathlib.Path("/proc/self/gid_map").write_text(f"0 {group} 1")
    mount("--make-rprivate", "/")


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


def umount(path):
    subprocess.run(["umount", str(path)], check=True)


@contextlib.contextmanager
def small_disk(path, size):
    mount("-t", "tmpfs", "-o", f"size={size}", "none", path)
    try:
        yield
    finally:
        # A timer pass can hold a file open for a moment.
        subprocess.run(["umount", "-l", str(path)], check=True)


@contextlib.contextmanager
def read_only(path):
    mount("--bind", path, path)
    try:
        mount("-o", "remount,bind,ro", path)
        yield
    finally:
        subprocess.run(["umount", "-l", str(path)], check=True)


@contextlib.contextmanager
def server(**setup):
    """A server that is not started yet, in a directory that goes with it unless a check fails."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="tarn-crash-"))
    made = module_host.ModuleHost(directory, **setup)
    try:
        yield made
    except BaseException:
        made.kill()
        kept = tempfile.mkdtemp(prefix="tarn-crash-kept-")
        shutil.copytree(directory, kept, dirs_exist_ok=True, symlinks=True, ignore=_sockets)
        print(f"crash: kept {kept}", file=sys.stderr)
        raise
    finally:
        made.kill()
        shutil.rmtree(directory)


def _sockets(directory, names):
    return [name for name in names if (pathlib.Path(directory) / name).is_socket()]


def check_sound(made):
    log = made.log()
    for sign in CRASH_SIGNS:
        check(sign not in log, "the log holds", repr(sign))


def rpc(made, command, *arguments, timeout=10.0):
    reply = made.jsonrpc("tarn_memdb." + command, *arguments, timeout=timeout)
    check("error" not in reply, command, arguments, "gave", reply)
    return reply["result"]


def select(made, table, **wanted):
    """Rows of a table by equal columns, oldest first, as tuples."""
    names = [column.name for column in made.tables[table].columns]
    query = f"{table},{'|'.join(wanted.get(name, '*') for name in names)},1000000"
    found = rpc_host.lines(made, "select", query)
    check(found and found[0] == "TABLE:", "select gave", found)
    return [tuple(line.split("|")) for line in reversed(found[1:])]


def until(condition, told, timeout=10.0):
    end = time.monotonic() + timeout
    while not condition():
        check(time.monotonic() < end, "never came:", told)
        time.sleep(0.02)


def complaints(made):
    """The module's lines about files that it refused."""
    return [
        text
        for text in made.said("ERROR")
        if text.startswith(("Could not parse '", "Wrong database version."))
    ]


def set_aside(made):
    """The module's lines about files that it put aside."""
    return [text for text in made.said("WARNING") if "was renamed to" in text]


def files(made, table):
    """The bytes of a table's main and backup file."""
    return tuple(table_model.read(made.table_file(table, backup)) for backup in (False, True))


def refused(made, table):
    """Those of the files that a load put aside."""
    return tuple(table_model.read(made.refused_file(table, backup)) for backup in (False, True))


class Expected:
    """What the next load of a table makes of its files, all of which are looked at now."""

    def __init__(self, made, table):
        self.made, self.table = made, table
        before = files(made, table)
        aside = refused(made, table)
        self.loaded = table_model.load(table, len(made.tables[table].columns), *before)
        self.files = table_model.files_after(self.loaded, *before)
        self.refused = table_model.refused_after(self.loaded, *before, aside)
        pairs = zip(before, self.files, strict=True)
        moved = [old is not None and new is None for old, new in pairs]
        self.warnings = [made.set_aside(table, backup) for backup in (False, True) if moved[backup]]

    def check_files(self, *told):
        found = files(self.made, self.table), refused(self.made, self.table)
        check(found == (self.files, self.refused), self.table, "has other files", *told)

    @staticmethod
    def check_log(made, expected):
        """The complaints and warnings of a start, of all tables in the order of the schema."""
        said = [text for each in expected for text in each.loaded.complaints]
        check(complaints(made) == said, "complaints", complaints(made))
        warned = [text for each in expected for text in each.warnings]
        check(set_aside(made) == warned, "set aside", set_aside(made))
