"""The select of a port pair by either of its ports, on a real server: pseudo-variables and AVPs.

What it selects is told by tests/module/port_type_select_test.cc.
"""

import pytest
from module_host import Call, Table, columns

PAIRS = Table("pairs", columns("call", "host", "outer", "inner", "state", indexed=("call",)))
# The last is the newest.
ROWS = ["c1|h1|500|600|up", "c2|h1|501|601|up", "c3|h2|500|602|down"]

EACH = pytest.mark.parametrize(
    "function",
    ["tarn_memdb_select_by_port_type", "tarn_memdb_nl_select_by_port_type"],
    ids=["locked", "nl"],
)
NAMES = "$avp(call)|$avp(host)|$avp(port)|$avp(state)"
SHOWN = ("$avp(call)", "$avp(host)", "$avp(port)", "$avp(state)", "$(avp(port)[1])")

# The script leaves out the place of the pair's other port, which is found by counting the bars in
# its text. Hence a field at a time from the header.
QUERY = "pairs,$(hdr(X-Q){s.select,0,/})|$(hdr(X-Q){s.select,1,/})|$(hdr(X-Q){s.select,2,/})|*"


@pytest.fixture
def stored(host):
    def start(function, query, side="$hdr(X-Side)", before="", rows=tuple(ROWS)):
        call = Call(f'{function}("{side}", "{query}", "{NAMES}")', before=before, show=SHOWN)
        server = host(start=False, tables=[PAIRS], calls={"pair": call})
        server.write_rows("pairs", rows)
        return server.start()

    return start


def pair(server, side, query):
    """Looks a port up; `query` holds call, host and port, separated by slashes."""
    result = server.call("pair", query, headers={"X-Side": side})
    return result.rc, result.values


@EACH
def test_a_pair_is_found_by_either_port_and_gives_the_other(stored, function):
    server = stored(function, QUERY)
    assert pair(server, "external_port", "*/*/501") == (1, ("c2", "h1", "601", "up", None))
    assert pair(server, "internal_port", "*/*/601") == (1, ("c2", "h1", "501", "up", None))
    # The newest is delivered first, so it stands last.
    assert pair(server, "external_port", "*/*/500")[1][2::2] == ("600", "602")
    assert pair(server, "external_port", "*/*/601")[0] == -2
    assert pair(server, "external_ports", "*/*/500")[0] == -1
    assert server.said("ERROR") == ["could not print the formatted pv input\n"]


def test_bars_that_only_a_call_brings_are_no_places(stored):
    server = stored("tarn_memdb_select_by_port_type", "pairs,$hdr(X-Q)")
    assert pair(server, "external_port", "*|*|500|*")[0] == -1
    assert server.said("ERROR")[0] == "Table '*|pairs' was not found\n"


@EACH
@pytest.mark.parametrize("side", ["$var(side)", "$avp(side)", "$hdr(X-Side)", "$fU"])
def test_pseudo_variables_in_every_place(stored, function, side):
    server = stored(
        function,
        "$var(table),$fU|$si|$avp(given)|$var(any),$var(limit)",
        side=side,
        before='$var(table) = "pairs";\n$avp(given) = 600;\n$var(any) = "*";\n$var(limit) = 1;\n'
        '$var(side) = "internal_port";\n$avp(side) = "internal_port";',
        rows=["internal_port|127.0.0.9|500|600|up", "x|127.0.0.9|501|600|up"],
    )
    with server.phone(user="internal_port", address="127.0.0.9") as phone:
        result = server.call("pair", phone=phone, headers={"X-Side": "internal_port"})
    assert (result.rc, result.values) == (
        1,
        ("internal_port", "127.0.0.9", "500", "up", None),
    )
