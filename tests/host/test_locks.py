"""Who waits for a table's lock, and who doesn't.

The lock is held by the server's own timer process: a store keeps the lock while it opens the
table's file, and opening a FIFO for writing lasts until somebody reads it.
"""

import concurrent.futures
import contextlib
import os

import pytest
from module_host import Call, Table, columns

# One table that every function can work on.
NAMES = ["name", "grp", "outer", "inner", "place", "side", "pfx", "kind", "dyn", "value"]
NAMES += ["c10", "c11", "dn", "subnet", "from", "ct"]
ROW = "alice|g|500|600|x|LAN|49|0|0|15|||1|1|0|0"
HELD = Table("held", columns(*NAMES), ports=("dynamic", 3, 2))
WILD = "|".join("*" * len(NAMES))


def query(**values):
    return "held," + "|".join(values.get(name, "*") for name in NAMES)


ONE = '"$avp(a)"'
KEY = query(pfx="4930")
PAIR = "held," + "|".join("*" * (len(NAMES) - 1))
NEW = "|".join(["new"] + ["y"] * (len(NAMES) - 1))

# Each gives 1, or a port, or the -2 of the select that delivers nothing.
WAITING = {
    "select": f'tarn_memdb_select("held,{WILD}", {ONE})',
    "xavp_select": f'tarn_memdb_xavp_select("held,{WILD}", "x")',
    "best_match": f'tarn_memdb_select_best_match("{KEY}", {ONE}, "6")',
    "xavp_best_match": f'tarn_memdb_xavp_select_best_match("{KEY}", "x", "6")',
    "by_port_type": f'tarn_memdb_select_by_port_type("external_port", "{PAIR}", "$avp(a)||")',
    "st_select": 'sqll_tarn_memdb_select("SELECT name FROM held WHERE grp=g", "$avp(a)")',
    "st_update": 'sqll_tarn_memdb_update("UPDATE held SET place=z WHERE grp=g")',
    "st_insert": 'sqll_tarn_memdb_insert("INSERT INTO held name VALUES st")',
    "st_delete": 'sqll_tarn_memdb_delete("DELETE FROM held WHERE grp=away")',
    "insert": f'tarn_memdb_insert("held,{NEW}")',
    "delete": f'tarn_memdb_delete("{query(grp="away2")}")',
    "update": 'tarn_memdb_update("' + query(grp="g") + '", "place=w")',
}
GOING_ON = {
    "nl_select": f'tarn_memdb_nl_select("held,{WILD}", {ONE})',
    "nl_xavp_select": f'tarn_memdb_nl_xavp_select("held,{WILD}", "x")',
    "nl_best_match": f'tarn_memdb_nl_select_best_match("{KEY}", {ONE}, "6")',
    "nl_xavp_best_match": f'tarn_memdb_nl_xavp_select_best_match("{KEY}", "x", "6")',
    "match_prefix": f'tarn_memdb_nl_select_best_match_prefix("{KEY}", {ONE}, "6", "0")',
    "nl_by_port_type": (
        f'tarn_memdb_nl_select_by_port_type("external_port", "{PAIR}", "$avp(a)||")'
    ),
    "out_of_range": (
        f'tarn_memdb_nl_select_field_out_of_range("{query(grp="g")}", {ONE}, "9", "20", "30")'
    ),
    "within": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("held,{WILD}", {ONE}, "9", "1", "2", "$var(n)")'
    ),
    "subnetmask": (
        f'tarn_memdb_nl_select_subnetmask("{query(grp="net")}", {ONE}, "$si", "$fU", "$fU")'
    ),
    "row_count": 'tarn_memdb_row_count("held", "$avp(a)")',
    "get_port": 'tarn_memdb_get_port("INT")',
    "get_port_avp": 'tarn_memdb_get_port("EXT", "$avp(a)")',
    "get_port_from_range": 'tarn_memdb_get_port_from_range("INT", "21001")',
    "set_port": 'tarn_memdb_set_port("21100", "INT")',
}
RESULTS = {"within": -2, "get_port": 21000, "get_port_from_range": 21002}
# A row that lies in 127.0.0.0 by the columns that the subnet select reads.
NET_ROW = "bob|net|west|127.0.0.0|255.0.0.0|||||||||1||"
ROWS = [ROW, NET_ROW, ROW.replace("|g|", "|away|"), ROW.replace("|g|", "|away2|")]

# Long enough for a call that doesn't wait, short of the phones' first repetition.
PATIENCE = 0.4


TOUCH = Call(f'tarn_memdb_update("{query(grp="net")}", "place=touched")')


class HeldServer:
    """A server whose timer process holds the lock of the table."""

    def __init__(self, server):
        self.server = server
        self.fifo = server.directory / "held.fifo"

    def hold(self):
        main = self.server.main_file("held")
        # The store writes where the file was, and no backup takes the FIFO out of its way.
        self.server.backups.rmdir()
        main.unlink()
        os.mkfifo(self.fifo)
        os.link(self.fifo, main)
        self.server.call("touch")
        self.server.wait_log(f"Saving file '{main}'$")

    def release(self):
        """Lets the store go on, later ones into a file, and gives what it wrote."""
        self.server.main_file("held").unlink()
        with open(self.fifo) as fifo:
            return fifo.read()

    def close(self):
        # Whatever happened, the timer process mustn't be left waiting.
        self.server.main_file("held").unlink(missing_ok=True)
        os.close(os.open(self.fifo, os.O_RDONLY | os.O_NONBLOCK))


@pytest.fixture
def hold(host):
    with contextlib.ExitStack() as ends:

        def start(calls):
            server = host(
                start=False,
                tables=[HELD],
                calls={"touch": TOUCH, **{name: Call(call) for name, call in calls.items()}},
                children=len(calls) + 1,
                params={"store_tbl_interval": 1},
                ranges="INT 21001 21002\n",
                debug=True,
            )
            server.write_rows("held", ROWS)
            server.start()
            held = HeldServer(server)
            ends.callback(held.close)
            held.hold()
            return held

        yield start


def test_the_flavours_without_a_lock_and_the_port_functions_go_on(hold):
    held = hold(GOING_ON)
    assert {name: held.server.call(name).rc for name in GOING_ON} == {
        name: RESULTS.get(name, 1) for name in GOING_ON
    }
    assert len(held.release().splitlines()) == 1 + len(ROWS)


def test_every_other_function_waits_until_the_lock_is_released(hold):
    held = hold(WAITING)
    with concurrent.futures.ThreadPoolExecutor(len(WAITING)) as pool:
        calls = {name: pool.submit(held.server.call, name) for name in WAITING}
        answered, _ = concurrent.futures.wait(calls.values(), PATIENCE)
        stored = held.release().splitlines()
        assert not answered
        results = {name: call.result().rc for name, call in calls.items()}
    assert results == dict.fromkeys(WAITING, 1)
    # What was stored is what the table held before any of them came in.
    assert len(stored) == 1 + len(ROWS)
    assert not [row for row in stored if "|z|" in row or "|w|" in row]


@pytest.mark.parametrize("clear", ['tarn_memdb_clear_tbl("held")', "tarn_memdb_clear_pmap()"])
def test_clearing_waits_too(hold, clear):
    held = hold({"clear_it": clear})
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        cleared = pool.submit(held.server.call, "clear_it")
        answered, _ = concurrent.futures.wait([cleared], PATIENCE)
        stored = held.release().splitlines()
        assert not answered
        assert cleared.result().rc == 1
    assert len(stored) == 1 + len(ROWS)
    assert held.server.rows("held") == []
