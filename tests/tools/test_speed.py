"""tarn-memdb-check takes about as long as the load that it foretells, for odd files as well; both
go with the number of rows; and tarn-memdb-convert takes a few loads."""

import os
import resource
import subprocess

import pytest
from check_files import CHECK, PROBE, table
from convert_files import CONVERT, ConvertFiles

ROWS = 100_000

KEYS = {"DUPLICATED_DATA_CHECK": 1, "MAX_ROWS": 10**6}
KINDS = {
    "plain": ({}, lambda i: f"user{i * 7919 % 1000003}|sip:user{i}@10.0.0.7:5060|{i % 977}"),
    "indexed": ({"USE_INDEX": 1}, lambda i: f"{i + 1}|sip:user{i}@10.0.0.7:5060|{i % 977}"),
    "indexes back to front": ({"USE_INDEX": 1}, lambda i: f"{ROWS - i}|sip:user{i}|{i % 977}"),
    "equal": ({}, lambda i: "user|sip:user@10.0.0.7:5060|7"),
    "cut": ({}, lambda i: f"user{i}|{'x' * 70}|7"),
    "with a carriage return": ({}, lambda i: f"user{i}|sip:user@10.0.0.7:5060|7\r"),
}


def processor_time(*command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, stdout=subprocess.DEVNULL, timeout=60, check=False)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


# A multiple that leaves room for a busy machine; what is quadratic takes a thousand times as long.
@pytest.mark.parametrize("kind", KINDS)
def test_a_check_takes_about_as_long_as_the_load(files, kind):
    keys, row = KINDS[kind]
    columns = ("user 31 0", "contact 63 0", "source 45 0")
    files.schema(table("t", columns, **KEYS, **keys)).rows("t", *map(row, range(ROWS)))
    schema = os.fspath(files.directory / "schema.cfg")
    load = min(processor_time(PROBE, schema, "quiet") for _ in range(3))
    check = min(processor_time(CHECK, schema) for _ in range(3))
    print(f"{kind}: load {load:.3f} s, check {check:.3f} s, {check / load:.2f}")
    assert check < 3 * load + 0.1


# Ten times the rows lie less close to the processor; with chains as long as the table they take ten
# times as long each.
@pytest.mark.parametrize("program", ["load", "check"])
def test_a_row_of_a_large_file_costs_about_what_one_of_a_small_file_costs(files, program):
    columns = ("user 31 1", "contact 63 0", "source 45 0")
    files.schema(table("t", columns, MAX_ROWS=10**6))
    schema = os.fspath(files.directory / "schema.cfg")
    command = (PROBE, schema, "quiet") if program == "load" else (CHECK, schema)

    def row_time(count):
        rows = (f"user{i * 7919 % count}@sip.example.org|sip:{i}|{i % 977}" for i in range(count))
        files.rows("t", *rows)
        return min(processor_time(*command) for _ in range(7 if count < 10**5 else 4)) / count

    few, many = row_time(20_000), row_time(200_000)
    print(f"{program}: {few * 1e9:.0f} and {many * 1e9:.0f} ns a row, {many / few:.2f}")
    assert many < 2 * few


# It reads a file, writes one, which waits for the disk, and reads that back.
def test_a_conversion_takes_a_few_loads(tmp_path):
    columns = ("user 31 1", "contact 63 0", "source 45 0")
    files = ConvertFiles(tmp_path)
    files.schemas(*(table("t", order, MAX_ROWS=ROWS) for order in (columns, columns[::-1])))
    files.rows("t", *(f"user{i}|sip:user{i}@10.0.0.7:5060|{i % 977}" for i in range(ROWS)))
    old, new = (os.fspath(tmp_path / name) for name in ("old.cfg", "new.cfg"))
    commands = {
        "load": (PROBE, old, "quiet"),
        "convert": (CONVERT, old, new),
        "export": (CONVERT, "--export", "t", old),
        "import": (CONVERT, "--import", "t", old, csv_of(files)),
    }
    times = {
        what: min(processor_time(*command) for _ in range(3)) for what, command in commands.items()
    }
    print(", ".join(f"{what} {time:.3f} s" for what, time in times.items()))
    assert max(times.values()) < 8 * times["load"] + 0.1


def csv_of(files):
    name = files.directory / "t.csv"
    name.write_bytes(files.export())
    return os.fspath(name)
