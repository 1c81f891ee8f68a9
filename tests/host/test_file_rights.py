"""Who may read and write a table's files: as before, whoever stores the table."""

import os
import time

import pytest
from module_host import Call, Table, columns
from rpc_host import jsonrpc

MODES = {"t600": 0o600, "t640": 0o640, "t664": 0o664}
TABLES = [Table(name, columns("key", "value")) for name in MODES]
INSERTS = {name: Call(f'tarn_memdb_insert("{name},$hdr(X-Q)|new")') for name in MODES}
if os.geteuid() == 0:
    OWNER, GROUP = 12344, 12345
else:
    OWNER, GROUP = os.geteuid(), [os.getegid(), *os.getgroups()][-1]


def by_timer(server):
    def is_stored(name):
        main = server.main_file(name)
        return server.backup_file(name).exists() and main.exists() and b"new" in main.read_bytes()

    end = time.monotonic() + 5
    while not all(is_stored(name) for name in MODES) and time.monotonic() < end:
        time.sleep(0.02)


def by_sync(server):
    for name in MODES:
        jsonrpc(server, "sync", name)


def by_stop(server):
    assert server.stop() == 0


def by_clear(server):
    jsonrpc(server, "clear_all")


def rights(path):
    status = path.stat()
    return status.st_mode & 0o7777, status.st_uid, status.st_gid


@pytest.mark.parametrize("store", [by_timer, by_sync, by_stop, by_clear])
def test_a_store_keeps_mode_owner_and_group_of_the_file_that_it_replaces(host, store):
    interval = {"store_tbl_interval": 1 if store is by_timer else 3600}
    server = host(start=False, tables=TABLES, calls=INSERTS, params=interval)
    before = {}
    for name, mode in MODES.items():
        server.write_rows(name, ["first|old"])
        os.chown(server.main_file(name), OWNER, GROUP)
        server.main_file(name).chmod(mode)
        before[name] = (mode, OWNER, GROUP)
    server.start()
    for name in MODES:
        assert server.call(name, "second").rc == 1
    store(server)
    for name in MODES:
        stored = [] if store is by_clear else ["first|old", "second|new"]
        assert server.rows(name) == stored
    for backup in (False, True):
        after = {name: rights(server.table_file(name, backup)) for name in MODES}
        assert after == before


def test_a_file_that_replaces_none_has_the_rights_of_the_backup_or_of_the_refused_one(host):
    server = host(start=False, tables=TABLES, calls=INSERTS)
    server.write_rows("t600", ["first|old"], backup=True)
    server.backup_file("t600").chmod(0o600)
    server.main_file("t640").write_text("Version 0\n")
    server.main_file("t640").chmod(0o640)
    server.start()
    for name in MODES:
        assert server.call(name, "second").rc == 1
    assert server.stop() == 0
    modes = {name: rights(server.main_file(name))[0] for name in MODES}
    # The log is a file of this process's mask, as is one that has nothing to go by.
    usual = rights(server.log_path)[0]
    assert modes == {"t600": 0o600, "t640": 0o640, "t664": usual}
