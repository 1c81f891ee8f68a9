"""The select of a port pair by either of its ports."""

import pytest
from module_host import Call, Table, columns

PAIRS = Table("pairs", columns("call", "host", "outer", "inner", "state", indexed=("call",)))
# The last is the newest.
ROWS = ["c1|h1|500|600|up", "c2|h1|501|601|up", "c3|h2|500|602|down"]

FLAVOURS = ["tarn_memdb_select_by_port_type", "tarn_memdb_nl_select_by_port_type"]
EACH = pytest.mark.parametrize("function", FLAVOURS, ids=["locked", "nl"])
SHOWN = ("$avp(call)", "$avp(host)", "$avp(port)", "$avp(state)", "$(avp(port)[1])")


def by_port(
    function=FLAVOURS[0],
    side="$hdr(X-Side)",
    query="pairs,$hdr(X-Q)",
    names="$avp(call)|$avp(host)|$avp(port)|$avp(state)",
    before="",
    show=SHOWN,
):
    call = Call(f'{function}("{side}", "{query}", "{names}")', before=before, show=show)
    return {"pair": call}


# The script leaves out the place of the pair's other port, which is found by counting the bars in
# its text. Hence a field at a time from the header.
QUERY = "pairs,$(hdr(X-Q){s.select,0,/})|$(hdr(X-Q){s.select,1,/})|$(hdr(X-Q){s.select,2,/})|*"


@pytest.fixture
def stored(host):
    def start(calls, rows=tuple(ROWS), table=PAIRS, **setup):
        server = host(start=False, tables=[table], calls=calls, **setup)
        server.write_rows(table.name, rows)
        return server.start()

    return start


def pair(server, side, query):
    """Looks a port up; `query` holds call, host and port, separated by slashes."""
    return server.call("pair", query, headers={"X-Side": side})


@EACH
def test_a_pair_is_found_by_either_port_and_gives_the_other(stored, function):
    server = stored(by_port(function, query=QUERY))
    outer = pair(server, "external_port", "*/*/501")
    assert (outer.rc, outer.values) == (1, ("c2", "h1", "601", "up", None))
    inner = pair(server, "internal_port", "*/*/601")
    assert (inner.rc, inner.values) == (1, ("c2", "h1", "501", "up", None))


@EACH
def test_a_port_of_the_other_side_is_a_clean_miss(stored, function):
    server = stored(by_port(function, query=QUERY))
    assert pair(server, "external_port", "*/*/601").rc == -2
    assert pair(server, "internal_port", "*/*/501").rc == -2
    assert server.said("ERROR") == []


@EACH
def test_the_other_columns_filter(stored, function):
    server = stored(by_port(function, query=QUERY))
    assert pair(server, "external_port", "*/h2/500").values[0] == "c3"
    assert pair(server, "external_port", "c1/*/500").values[0] == "c1"
    assert pair(server, "external_port", "c1/h2/500").rc == -2


@EACH
def test_all_rows_of_a_port_are_delivered_up_to_the_limit(stored, function):
    server = stored(by_port(function, query=QUERY))
    # The newest is delivered first, so it stands last.
    assert pair(server, "external_port", "*/*/500").values[2::2] == ("600", "602")
    server = stored(by_port(function, query=QUERY + ",1"))
    assert pair(server, "external_port", "*/*/500").values[2::2] == ("602", None)


@EACH
def test_a_wildcard_for_the_port_leaves_the_choice_to_the_other_columns(stored, function):
    server = stored(by_port(function, query=QUERY))
    assert pair(server, "external_port", "c2/*/*").values[2] == "601"
    assert pair(server, "internal_port", "c2/*/*").values[2] == "501"


@EACH
@pytest.mark.parametrize("side", ["Internal_port", "internal", "INT", "external_por"])
def test_another_selection_word_fails_before_the_query_is_read(stored, function, side):
    server = stored(by_port(function, query="nowhere,$hdr(X-Q)|*|*|*"))
    assert pair(server, side, "x").rc == -1
    assert server.said("ERROR") == ["wrong port selection parameter!\n"]


@EACH
def test_a_selection_word_that_does_not_fit_cannot_be_printed(stored, function):
    server = stored(by_port(function, query=QUERY))
    assert pair(server, "external_ports", "*/*/500").rc == -1
    assert server.said("ERROR") == ["could not print the formatted pv input\n"]


def test_an_empty_selection_cannot_be_printed(stored):
    server = stored(by_port(side="$(hdr(X-Q){s.substr,0,0})$var(none)", before='$var(none) = "";'))
    assert server.call("pair").rc == -1
    assert server.said("ERROR") == ["could not print the formatted pv input\n"]


@EACH
def test_failures_of_the_query_have_lines_of_their_own(stored, function):
    server = stored(by_port(function, query=QUERY + "|x"))
    assert pair(server, "external_port", "*/*/500").rc == -1
    said = server.said("ERROR")
    assert said[0].startswith("Size mismatch")
    assert said[-1] == ("Could not parse query (pairs,*|*|500|*|*|x) for select by port type\n")
    server.log_start = server.log_path.stat().st_size
    assert pair(server, "external_port", "*/*/" + "5" * 4096).rc == -1
    assert server.said("ERROR") == ["Could not print the formatted pv input\n"]


def test_lists_with_too_few_bars_are_widened_at_their_start(stored):
    """Three bars in the query and two in the list say where the other port stands."""
    server = stored(by_port(query="pairs,*|*", names="$avp(call)|$avp(host)"))
    assert pair(server, "external_port", "").rc == -1
    assert server.said("ERROR")[-1] == (
        "Could not parse query (*|pairs,*|*) for select by port type\n"
    )
    shifted = by_port(query=QUERY, names="$avp(call)|$avp(host)")
    server = stored(shifted)
    # Each name takes the column behind its own.
    assert pair(server, "external_port", "*/*/501").values[:2] == ("h1", "501")


def test_every_bar_of_the_text_counts_as_a_place_escaped_or_not(stored):
    """So the wildcard for the other port lands behind the escaped bar, inside the port's text."""
    server = stored(by_port(query=r"pairs,c1|h1|500\||$hdr(X-Q)"), [r"c1|h1|500\|*||up"])
    result = pair(server, "external_port", "up")
    assert (result.rc, result.values[:4]) == (1, ("c1", "h1", "", "up"))


def test_bars_that_only_a_call_brings_are_no_places(stored):
    server = stored(by_port(query="pairs,$hdr(X-Q)"))
    assert pair(server, "external_port", "*|*|500|*").rc == -1
    assert server.said("ERROR")[0] == "Table '*|pairs' was not found\n"


def test_a_table_too_narrow_for_a_pair_is_refused(stored):
    narrow = Table("pairs", columns("call", "host", "outer"))
    # With the third bar in the place of the limit, three fields are left.
    server = stored(by_port(query="pairs,*|*|*,|"), ["c1|h1|500"], narrow)
    assert pair(server, "external_port", "").rc == -1
    assert server.said("ERROR") == ["Table 'pairs' has no port columns\n"]


@EACH
@pytest.mark.parametrize("side", ["$var(side)", "$avp(side)", "$hdr(X-Side)", "$fU"])
def test_pseudo_variables_in_every_place(stored, function, side):
    calls = by_port(
        function,
        side=side,
        query="$var(table),$fU|$si|$avp(given)|$var(any),$var(limit)",
        before='$var(table) = "pairs";\n$avp(given) = 600;\n$var(any) = "*";\n$var(limit) = 1;\n'
        '$var(side) = "internal_port";\n$avp(side) = "internal_port";',
    )
    server = stored(calls, ["internal_port|127.0.0.9|500|600|up", "x|127.0.0.9|501|600|up"])
    with server.phone(user="internal_port", address="127.0.0.9") as phone:
        result = server.call("pair", phone=phone, headers={"X-Side": "internal_port"})
    assert (result.rc, result.values) == (
        1,
        ("internal_port", "127.0.0.9", "500", "up", None),
    )
