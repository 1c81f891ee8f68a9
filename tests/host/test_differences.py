"""Functions that are alike but for one rule, side by side: limits, last lines, audit lines."""

import pytest
from module_host import Call, Table, columns

# A table that every select can work on; columns that have a meaning for one of them have its name.
NAMES = ["grp", "key", "outer", "net", "mask", "prefix", "number", "name"]
NAMES += [f"c{i}" for i in range(8, 12)] + ["dn", "subnet", "from", "ct"]
ALL = Table("all", columns(*NAMES, indexed=("key",)))
PREFIX, NUMBER = NAMES.index("prefix"), NAMES.index("number")


def row(name, prefix, number, net):
    free = "|" * 4
    return f"g|k|500|{net}|255.255.0.0|{prefix}|{number}|{name}|{free}0|1|0|0"


# Two newest rows that pass every filter, and no test of a select's own; four older ones that do.
ROWS = [row(f"old{i}", "49", 50, "127.0.0.0") for i in range(4)]
ROWS += [row(f"new{i}", "8", 5, "10.0.0.0") for i in range(2)]


def query(limit=False, **values):
    text = "all," + "|".join(values.get(name, "*") for name in NAMES)
    return text + (",$hdr(X-Q)" if limit else "")


# The port-pair select leaves out the place of the other port.
PAIR = "all," + "|".join(["g", "*", "500"] + ["*"] * (len(NAMES) - 4))
PAIR_NAMES = '"' + "|" * (NAMES.index("name") - 1) + '$avp(name)"'
ONE = '"' + "|" * NAMES.index("name") + '$avp(name)"'
SHOWN = tuple(f"$(avp(name)[{i}])" for i in range(5))
OUT = "tarn_memdb_nl_select_field_out_of_range"
WITHIN = "tarn_memdb_nl_select_field_within_the_range"

LIMITED = {
    "plain": f'tarn_memdb_select("{query(True, grp="g")}", {ONE})',
    "best_match": (
        f'tarn_memdb_select_best_match("{query(True, prefix="4930")}", {ONE}, "{PREFIX}")'
    ),
    "out_of_range": f'{OUT}("{query(True)}", {ONE}, "{NUMBER}", "0", "10")',
    "within": f'{WITHIN}("{query(True)}", {ONE}, "{NUMBER}", "10", "0", "$var(count)")',
    "subnet": f'tarn_memdb_nl_select_subnetmask("{query(True)}", {ONE}, "$si", "a", "b")',
    "port_pair": (
        f'tarn_memdb_select_by_port_type("external_port", "{PAIR},$hdr(X-Q)", {PAIR_NAMES})'
    ),
}
# How many rows each gives for a limit of 2, 3 and 9. Where rows visited count, the two newest use
# the limit up; where rows delivered or held count, they don't.
GIVEN = {
    "plain": (2, 3, 6),
    "best_match": (0, 1, 4),
    "out_of_range": (2, 3, 4),
    "within": (0, 1, 4),
    # Never more than the first match.
    "subnet": (0, 1, 1),
    "port_pair": (2, 3, 6),
}


def test_what_the_limit_of_a_query_counts_in_each_select(host):
    shown = (*SHOWN, "$(avp(name)[5])")
    calls = {
        f"select_{name}": Call(call, show=("$var(count)",) if name == "within" else shown)
        for name, call in LIMITED.items()
    }
    server = host(start=False, tables=[ALL], calls=calls)
    server.write_rows("all", ROWS)
    server.start()

    def given(name, limit):
        result = server.call(f"select_{name}", str(limit))
        assert result.rc != -1
        if name == "within":
            return int(result.values[0])
        return len([value for value in result.values if value is not None])

    assert {name: tuple(given(name, limit) for limit in (2, 3, 9)) for name in LIMITED} == GIVEN


# Failures of each kind, and whether the last line "SELECT failed!" follows.
LAST = "SELECT failed!\n"
BAD = "all,$hdr(X-Q)"
UNPRINTED = {
    "plain": (f'tarn_memdb_select("{BAD}", {ONE})', True),
    "plain xavp": (f'tarn_memdb_xavp_select("{BAD}", "x")', True),
    "best match": (f'tarn_memdb_select_best_match("{BAD}", {ONE}, "{PREFIX}")', True),
    "best match xavp": (f'tarn_memdb_xavp_select_best_match("{BAD}", "x", "{PREFIX}")', True),
    "out of range": (f'{OUT}("{BAD}", {ONE}, "{NUMBER}", "0", "1")', True),
    "within": (f'{WITHIN}("{BAD}", {ONE}, "{NUMBER}", "0", "1", "$var(n)")', True),
    "subnet": (f'tarn_memdb_nl_select_subnetmask("{BAD}", {ONE}, "$si", "a", "b")', False),
    "port pair": (
        f'tarn_memdb_select_by_port_type("external_port", "{BAD}|||", "$avp(name)||")',
        False,
    ),
}


@pytest.mark.parametrize("call, last", UNPRINTED.values(), ids=UNPRINTED)
def test_which_select_has_a_last_line_for_a_query_that_cannot_be_read(host, call, last):
    server = host(tables=[ALL], calls={"odd": Call(call)})
    assert server.call("odd", "x" * 4096).rc == -1
    assert (server.said("ERROR")[-1] == LAST) is last
    assert "print the formatted pv input\n" in server.said("ERROR")[0]
    server.log_start = server.log_path.stat().st_size
    assert server.call("odd", "a|b").rc == -1
    assert (server.said("ERROR")[-1] == LAST) is last
    assert len([text for text in server.said("ERROR") if text.startswith("Could not parse ")]) == 1


LATER = {
    # The host makes no XAVP without a name.
    "plain: nothing delivered": (
        f'tarn_memdb_xavp_select("{query()}", "$var(none)")',
        [LAST],
    ),
    "plain without a lock: nothing delivered": (
        f'tarn_memdb_nl_xavp_select("{query()}", "$var(none)")',
        [LAST],
    ),
    "best match: nothing delivered": (
        f'tarn_memdb_xavp_select_best_match("{query(prefix="49")}", "$var(none)", "{PREFIX}")',
        [],
    ),
    "best match: no key": (
        f'tarn_memdb_select_best_match("{query()}", {ONE}, "{PREFIX}")',
        [
            f"memdb_select_best_match: main column ({PREFIX}) value is not set or empty, "
            "ignoring this row\n"
        ],
    ),
    "out of range: indexed column": (
        f'{OUT}("{query()}", {ONE}, "1", "0", "1")',
        ["Main column (1) is an index column, ignoring this row\n"],
    ),
    "within: indexed column": (
        f'{WITHIN}("{query()}", {ONE}, "1", "0", "1", "$var(n)")',
        ["Main column (1) is an index column, ignoring this row\n"],
    ),
    "subnet: no source": (
        f'tarn_memdb_nl_select_subnetmask("{query()}", {ONE}, "$var(none)", "a", "b")',
        ["Could not print the formatted pv input for src_ip_str\n"],
    ),
    "port pair: wrong word": (
        f'tarn_memdb_select_by_port_type("EXT", "{PAIR}", {ONE})',
        ["wrong port selection parameter!\n"],
    ),
}


@pytest.mark.parametrize("call, errors", LATER.values(), ids=LATER)
def test_which_select_has_a_last_line_for_a_later_failure(host, call, errors):
    calls = {"odd": Call(call, before='$var(none) = "";')}
    server = host(start=False, tables=[ALL], calls=calls)
    server.write_rows("all", ROWS)
    server.start()
    assert server.call("odd").rc == -1
    assert server.said("ERROR") == errors


MEDIA = Table(
    "media",
    columns("id", "call", "caller", "callee", "inner", "place", "outer", "kind", "dyn"),
    ports=("dynamic", 4, 6),
    log_tag="TAG",
)


def test_audit_lines_tell_the_source_by_their_width(host):
    """Ten blanks from the script's writes, seven from a clear, six with the maps, five from SQL."""
    wild = "|".join("*" * 9)
    steps = [
        'tarn_memdb_insert("media,1|c1|a|b|21000|WAN||0|0")',
        'sqll_tarn_memdb_insert("INSERT INTO media id,call VALUES 2,c2")',
        'tarn_memdb_update("media,*|c1|*|*|*|*|*|*|*", "caller=x")',
        'sqll_tarn_memdb_update("UPDATE media SET caller=y WHERE call=c2")',
        'tarn_memdb_delete("media,*|c1|*|*|*|*|*|*|*")',
        'sqll_tarn_memdb_delete("DELETE FROM media WHERE call=c2")',
        'tarn_memdb_insert("media,3|c3|a|b|21000|WAN||0|0")',
        "sqll_tarn_memdb_update(\"UPDATE media SET caller='' WHERE call=c3\")",
        'tarn_memdb_insert("media,4|c4|a|b|21000|WAN||0|0")',
        f'tarn_memdb_update("media,{wild}", "||||||||")',
        'tarn_memdb_insert("media,5|c5|a|b|21000|WAN||0|0")',
        'tarn_memdb_clear_tbl("media")',
        'tarn_memdb_insert("media,6|c6|a|b|21000|WAN||0|0")',
        "tarn_memdb_clear_pmap()",
    ]
    calls = {f"step{number}": Call(step) for number, step in enumerate(steps)}
    server = host(tables=[MEDIA], calls=calls)
    assert [server.call(name).rc for name in calls] == [1] * len(steps)
    told = [(len(text) - len(text.lstrip()) - 1, text.lstrip()) for text in server.said("NOTICE")]
    assert told == [
        (10, "TAG - (1) Inserting media,1|c1|a|b|21000|WAN||0|0"),
        (5, "TAG - (2) SQLL Inserting media,2"),
        (10, "TAG - (2) Updating media,1|c1|x|b|21000|WAN||0|0"),
        (5, "TAG - (2) SQLL Updating media,2|c2|y||||||"),
        (10, "TAG - (1) Deleting media,1|c1|x|b|21000|WAN||0|0"),
        (5, "TAG - (0) SQLL Deleting media,2|c2|y||||||"),
        (10, "TAG - (1) Inserting media,3|c3|a|b|21000|WAN||0|0"),
        (5, "TAG - (0) SQLL Deleting from update media,3|c3|a|b|21000|WAN||0|0"),
        (10, "TAG - (1) Inserting media,4|c4|a|b|21000|WAN||0|0"),
        (10, "TAG - (0) Deleting from update media,||||||||"),
        (10, "TAG - (1) Inserting media,5|c5|a|b|21000|WAN||0|0"),
        (7, "TAG - (0) Clearing table media"),
        (10, "TAG - (1) Inserting media,6|c6|a|b|21000|WAN||0|0"),
        (6, "TAG - (0) Clearing table media"),
    ]
