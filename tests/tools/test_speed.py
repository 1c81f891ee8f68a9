"""tarn-memdb-check takes about as long as the load that it foretells, for odd files as well."""

import os
import resource
import subprocess

import pytest
from check_files import CHECK, PROBE, table

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
