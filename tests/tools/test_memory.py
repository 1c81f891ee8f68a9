"""What tarn-memdb-check tells of the server's shared memory, against a server's own figures."""

import pathlib
import shutil
import sys
import tempfile

import pytest
from check_files import as_json, expect, expect_clean, table

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests/host")]

import host_server  # noqa: E402  (found by way of the line above)
import module_host  # noqa: E402

MB = 1 << 20
ALLOCATORS = ("qm", "fm", "tlsf")
# What the server takes besides, and more than it takes while the tables are loaded.
SERVER = 450_000
# The most that a table may have whose indexes take nothing more than they did without rows.
ROWS = 1000
# tlsf's own sum counts these for each block, and doesn't take them.
COUNTED_IN_VAIN = {"qm": 0, "fm": 0, "tlsf": 16}


def memory_of(files, allocator, memory=64, more=()):
    options = ["--json", "--memory", str(memory), "--allocator", allocator, *more]
    told = files.check(options=options)
    return as_json(told.out)["memory"]


def rows(count):
    return ["v|w"] * count


def keyed_rows(count):
    return [f"{i * 7919 % count}|w" for i in range(count)]


def close_to(value):
    """What takes blocks of many sizes: an allocator may give one more than was asked for."""
    return pytest.approx(value, rel=0.03)


def server_with(files, allocator, memory, calls=()):
    """A server on the files, with that allocator and so many MB."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="tarn-mem-"))
    program = directory / "server"
    command = f'exec "{host_server.TOOLS}/host-kamailio" -x {allocator} "$@"'
    program.write_text(f"#!/bin/sh\n{command}\n")
    program.chmod(0o755)
    params = {"cfg_file_path": str(files.directory / "schema.cfg")}
    return module_host.ModuleHost(
        directory, kamailio=program, memory=memory, params=params, calls=calls
    )


def start(files, allocator, memory=64, calls=()):
    """The server's own figures after a start."""
    server = server_with(files, allocator, memory, calls)
    try:
        server.start()
        return server.jsonrpc("core.shmmem")["result"]
    finally:
        server.kill()
        shutil.rmtree(server.directory)


@pytest.mark.parametrize("allocator", ALLOCATORS)
@pytest.mark.parametrize("columns", [("a 3 0", "b 3 0"), ("a 30 1", "b 57 0", "c 9 1")])
def test_a_row_takes_what_the_server_says_it_takes(files, allocator, columns):
    files.schema(table(columns=columns, MAX_ROWS=10**6))
    values = "|".join("v" * len(columns))
    told, seen = [], []
    for count in (0, ROWS):
        files.rows("t", *[values] * count)
        told.append(memory_of(files, allocator)["bytes_at_start"])
        seen.append(start(files, allocator)["real_used"])
    counted = COUNTED_IN_VAIN[allocator] * ROWS
    assert told[1] - told[0] == seen[1] - seen[0] - counted


@pytest.mark.parametrize("allocator", ALLOCATORS)
def test_the_index_of_a_large_table_counts(files, allocator):
    count = 20_000
    files.schema(table(columns=("a 15 1", "b 3 0"), MAX_ROWS=count)).rows("t")
    empty, took = memory_of(files, allocator), start(files, allocator)["real_used"]
    files.rows("t", *keyed_rows(count))
    full = memory_of(files, allocator)
    took = start(files, allocator)["real_used"] - took - COUNTED_IN_VAIN[allocator] * count
    assert full["bytes_at_start"] - empty["bytes_at_start"] == close_to(took)
    # Foretold without a row, and with all.
    assert empty["bytes_when_full"] == close_to(full["bytes_at_start"])
    assert full["bytes_when_full"] == close_to(full["bytes_at_start"])
    without_index = table(columns=("a 15 0", "b 3 0"), MAX_ROWS=count)
    plain = memory_of(files.schema(without_index), allocator)["bytes_at_start"]
    assert full["bytes_at_start"] - plain > count * 16


@pytest.mark.parametrize("allocator", ALLOCATORS)
def test_a_best_match_that_is_told_of_counts(files, allocator):
    count = 20_000
    files.schema(table(columns=("a 15 0", "b 3 0"), MAX_ROWS=count)).rows("t", *keyed_rows(count))
    call = module_host.Call('tarn_memdb_select_best_match("t,$var(k)|*", "|$avp(b)", "0")')
    took = [start(files, allocator, 64, calls)["real_used"] for calls in ({}, {"find": call})]
    told = [memory_of(files, allocator, more=["--best-match", "t"] * n) for n in range(6)]
    for word in ("bytes_at_start", "bytes_when_full"):
        each = [more[word] - less[word] for less, more in zip(told, told[1:], strict=False)]
        assert each[0] == close_to(took[1] - took[0])
        # The module makes four for a table at the most.
        assert each == [each[0]] * 4 + [0]


def test_a_best_match_among_the_rows_of_no_table_is_told(files):
    files.schema(table()).rows("t")
    told = files.check(options=["--memory", "64", "--best-match", "u"])
    expect(told, "schema.cfg", 0, "warning", "has no table 'u', which --best-match names")


@pytest.mark.parametrize("allocator", ALLOCATORS)
def test_rows_that_are_told_to_fit_fit_and_others_do_not(files, allocator):
    files.schema(table(columns=("a 23 0", "b 31 0"), MAX_ROWS=10**6)).rows("t")
    base = memory_of(files, allocator, 2)["bytes_at_start"]
    files.rows("t", "v|w")
    row = memory_of(files, allocator, 2)["bytes_at_start"] - base
    fitting = (2 * MB - SERVER - base) // row
    files.rows("t", *rows(fitting))
    assert files.check(options=["--memory", "2", "--allocator", allocator]).status == 1
    start(files, allocator, 2)
    assert not (files.directory / "tables/t.tbl.refused").exists()
    files.rows("t", *rows((2 * MB - base) // row + 1))
    told = files.check(options=["--memory", "2", "--allocator", allocator])
    expect(told, "schema.cfg", 0, "error", "and the server has 2 MB: not all rows are loaded")
    expect(told, "tables/t.tbl", 0, "error", "is set aside as")
    start(files, allocator, 2)
    assert (files.directory / "tables/t.tbl.refused").exists()


def test_memory_for_the_tables_is_told_with_how_much_it_will_be(files):
    files.schema(table(MAX_ROWS=1000)).rows("t", *rows(100))
    told = files.check(options=["--memory", "64"])
    assert told.status == 0
    needed = "shared memory: 0.3 MB of 64 MB for the tables, 0.5 MB when they are full\n"
    assert told.out == needed + "clean\n"
    memory = memory_of(files, "qm")
    assert memory["allocator"] == "qm" and memory["bytes"] == 64 * MB
    assert memory["bytes_when_full"] - memory["bytes_at_start"] == 900 * (96 + 112)
    assert "memory" not in as_json(files.check(options=["--json"]).out)


def test_tables_that_leave_the_server_too_little_are_told(files):
    files.schema(table(MAX_ROWS=40000)).rows("t", *rows(40000))
    part = "the tables leave 1.7 MB of 10 MB to the server"
    expect(files.check(options=["--memory", "10"]), "schema.cfg", 0, "warning", part)


def test_tables_that_will_not_fit_when_they_are_full_are_told(files):
    files.schema(table(MAX_ROWS=10**6)).rows("t", *rows(10))
    told = files.check(options=["--memory", "64"])
    part = "with as many rows as MAX_ROWS lets in the tables take 214.8 MB, and the server has 64"
    expect(told, "schema.cfg", 0, "warning", part)
    assert len(told.findings) == 1


def test_tables_beyond_what_a_server_has_without_a_word_are_told(files):
    files.schema(table(columns=("a 60000 0", "b 31 0"), MAX_ROWS=2000)).rows("t", *rows(1000))
    expect_clean(files.check())
    files.rows("t", *rows(1200))
    told = files.check()
    expect(told, "schema.cfg", 0, "warning", "a server has 64 MB unless its option -m says more")
    assert files.check(options=["--memory", "100"]).status == 1


def test_a_schema_that_takes_all_memory_fails_the_start(files):
    files.schema(*(table(f"t{i}", tuple(f"c{j} 31 1" for j in range(40))) for i in range(20)))
    told = files.check(options=["--memory", "3"])
    expect(told, "schema.cfg", 0, "error", "the start fails: the server has too little shared")
    server = server_with(files, "qm", 3)
    with pytest.raises(host_server.StartFailed):
        server.start()
    shutil.rmtree(server.directory)


def test_a_backup_behind_a_good_main_file_takes_no_memory(files):
    files.schema(table("t", MAX_ROWS=2000), table("u")).rows("t", *rows(1000))
    without = memory_of(files, "qm")
    files.rows("t", *rows(1500), backup=True)
    assert memory_of(files, "qm") == without


def test_the_rows_of_a_table_leave_the_next_one_less_whether_it_has_a_backup_or_not(files):
    files.schema(table("t", MAX_ROWS=9000), table("u", MAX_ROWS=9000))
    files.rows("t", *rows(5000)).rows("t", backup=True).rows("u", *rows(5000))
    for _ in ("with a backup", "without"):
        told = files.check(options=["--memory", "2"])
        expect(told, "tables/u.tbl", 0, "error", "is set aside as")
        assert not told.has("tables/t.tbl", 0, "error", "")
        (files.directory / "backup/t.tbl.backup").unlink(missing_ok=True)


def test_maps_count_with_their_ports(files):
    files.schema(table())
    narrow = memory_of(files, "qm")["bytes_at_start"]
    wide = files.check(options=["--json", "--memory", "64", "--int-ports", "1-100000"])
    grown = as_json(wide.out)["memory"]["bytes_at_start"] - narrow
    assert abs(grown - 100000 + 256) < 32
