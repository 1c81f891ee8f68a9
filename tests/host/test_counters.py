"""The module's counters where the server's own readers of counters show them."""

import re
import stat

import pytest
from module_host import Call, Table, columns

PHONES = Table("phones", columns("user", "contact", indexed=("user",)), 3, check_duplicates=True)
ODD = Table("odd-name", columns("a", "b"))
MODULES = ("pv", "sl", "textops", "kex", "counters", "ctl", "jsonrpcs", "xhttp", "xhttp_prom")
CALLS = {
    "insert": Call('tarn_memdb_insert("phones,$hdr(X-Q)")'),
    "take_port": Call('tarn_memdb_get_port("INT", "$avp(port)")', show=("$avp(port)",)),
    "read_stats": Call(
        "$var(none) = 0",
        show=("$stat(rows_phones)", "$stat(refused_duplicate)", "$stat(free_ports_int)"),
    ),
}


@pytest.fixture
def server(host):
    made = host(
        start=False,
        tables=[PHONES, ODD],
        calls=CALLS,
        modules=(*(f"{name}.so" for name in MODULES), "tarn_memdb"),
        modparams=['modparam("xhttp_prom", "xhttp_prom_stats", "tarn_memdb:")'],
        params={"min_int_port": 100, "max_int_port": 102},
        http="if (prom_check_uri()) prom_dispatch();",
    )
    made.write_rows("phones", ["bob|sip:bob@10.0.0.7"])
    return made.start()


def by_rpc(server):
    """All values, by the module counters."""
    status, shown, errors = server.kamcmd("cnt.grp_get_all", "tarn_memdb")
    assert (status, errors) == (0, "")
    return {name: int(value) for name, value in re.findall(r"(\w+): (\d+)", shown)}


def by_prometheus(server):
    """The same, as a scrape gives them."""
    samples = re.findall(r"(?m)^(\w+) (\d+) \d+$", server.web_page("/metrics"))
    return {name.removeprefix("kamailio_tarn_memdb_"): int(value) for name, value in samples}


def by_stats(server):
    shown = server.jsonrpc("stats.get_statistics", "tarn_memdb:")["result"]
    matches = [re.fullmatch(r"tarn_memdb:(\w+) = (\d+)", line) for line in shown]
    return {match[1]: int(match[2]) for match in matches}


def test_all_readers_tell_the_same(server):
    server.call("insert", "carol|sip:carol@10.0.0.8")
    server.call("insert", "carol|sip:carol@10.0.0.8")
    for _ in range(4):
        server.call("take_port")
    told = by_rpc(server)
    assert by_prometheus(server) == by_stats(server) == told
    assert len(told) == 18 + 2 * 8
    assert (told["rows_phones"], told["free_rows_phones"]) == (2, 1)
    assert (told["file_rows_phones"], told["refused_duplicate_phones"]) == (1, 1)
    assert (told["taken_ports_int"], told["free_ports_int"]) == (3, 0)
    assert (told["refused_ports_int"], told["refused_ports"]) == (1, 1)
    assert (told["rows_odd_name"], told["retired_rows"]) == (0, 0)


def test_a_script_reads_them(server):
    server.call("insert", "carol|sip:carol@10.0.0.8")
    server.call("insert", "carol|sip:carol@10.0.0.8")
    assert server.call("read_stats").values == ("2", "1", "3")


def test_stores_are_told_with_their_files_and_their_failures(server):
    server.call("insert", "carol|sip:carol@10.0.0.8")
    server.jsonrpc("tarn_memdb.sync", "phones")
    told = by_rpc(server)
    assert told["file_rows_phones"] == 2
    assert told["file_bytes_phones"] == server.main_file("phones").stat().st_size
    # A directory can't be written, whoever the server runs as.
    server.main_file("phones").rename(server.files / "aside")
    server.main_file("phones").mkdir()
    (server.backup_file("phones")).unlink(missing_ok=True)
    (server.backup_file("phones")).mkdir()
    (server.backup_file("phones") / "full").touch()
    server.call("insert", "erin|sip:erin@10.0.0.9")
    server.jsonrpc("tarn_memdb.sync", "phones")
    told = by_rpc(server)
    assert (told["failed_stores_phones"], told["failed_stores"]) == (1, 1)
    assert told["file_rows_phones"] == 2
    assert stat.S_ISDIR(server.main_file("phones").stat().st_mode)
    server.main_file("phones").rmdir()


def test_a_refused_file_of_the_start_is_told(host):
    modules = ("pv.so", "sl.so", "ctl.so", "counters.so", "tarn_memdb")
    other = host(start=False, tables=[PHONES], modules=modules)
    other.main_file("phones").write_text("Version 1\nnot a row\n")
    other.start()
    assert other.kamcmd("cnt.get", "tarn_memdb", "refused_files_phones")[1].strip() == "1"


def test_help_tells_what_a_counter_counts(server):
    status, shown, _ = server.kamcmd("cnt.help", "tarn_memdb", "free_rows_odd_name")
    assert (status, shown.strip()) == (0, "table 'odd-name': rows up to MAX_ROWS")
