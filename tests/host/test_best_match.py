"""The longest-prefix select in its five flavours."""

import pytest
from module_host import Call, Table, columns

ROUTES = Table("routes", columns("grp", "prefix", "gate", indexed=("grp",)), max_rows=2000)
# The last is the newest. Two groups have a default, the third has none.
ROWS = [
    "eu||eu-default",
    "eu|49|germany",
    "eu|4930|berlin",
    "us|1|north",
    "us||us-default",
    "us|49|germany-from-us",
    "eu|4989|munich",
    "as|81|japan",
]
NAMES = '"||$avp(gate)"'

# Function and whether it delivers XAVPs; the prefix flavour has its flags besides.
FLAVOURS = {
    "locked": ("tarn_memdb_select_best_match", False),
    "nl": ("tarn_memdb_nl_select_best_match", False),
    "prefix": ("tarn_memdb_nl_select_best_match_prefix", False),
    "xavp": ("tarn_memdb_xavp_select_best_match", True),
    "nl xavp": ("tarn_memdb_nl_xavp_select_best_match", True),
}
EACH = pytest.mark.parametrize("flavour", FLAVOURS)


def best(flavour="locked", query="routes,$hdr(X-Q)", column="1", before="", names=NAMES, flags="0"):
    """A call that shows the gates that it found, the row delivered last ahead of the others."""
    function, as_xavp = FLAVOURS[flavour]
    parameters = [f'"{query}"', '"way"' if as_xavp else names, f'"{column}"']
    if flavour == "prefix":
        parameters.append(f'"{flags}"')
    gate = "$xavp(way[{}]=>gate)" if as_xavp else "$(avp(gate)[{}])"
    show = tuple(gate.format(i) for i in range(4))
    return {"best": Call(f"{function}({', '.join(parameters)})", before=before, show=show)}


def prefixed(flags, before=""):
    return best("prefix", flags=flags, before=before)


@pytest.fixture
def stored(host):
    def start(calls, rows=tuple(ROWS), table=ROUTES, **setup):
        server = host(start=False, tables=[table], calls=calls, **setup)
        server.write_rows(table.name, rows)
        return server.start()

    return start


def found(server, query):
    """The call's code and the gates found."""
    result = server.call("best", query)
    return result.rc, [gate for gate in result.values if gate is not None]


def rows_of(*prefixes):
    """Rows of one group; the gate says which row it is."""
    return [f"g|{prefix}|row{number}" for number, prefix in enumerate(prefixes)]


# What wins


@EACH
def test_the_longest_prefix_in_the_group_of_the_query_wins(stored, flavour):
    server = stored(best(flavour))
    assert found(server, "eu|4930123|*") == (1, ["berlin"])
    assert found(server, "eu|4989123|*") == (1, ["munich"])
    assert found(server, "eu|49301|*") == (1, ["berlin"])
    assert found(server, "eu|49123|*") == (1, ["germany"])
    assert found(server, "us|4930123|*") == (1, ["germany-from-us"])
    assert found(server, "us|1|*") == (1, ["north"])


@EACH
def test_a_group_falls_back_to_its_own_default_or_to_nothing(stored, flavour):
    server = stored(best(flavour))
    assert found(server, "eu|33123|*") == (1, ["eu-default"])
    assert found(server, "us|33123|*") == (1, ["us-default"])
    assert found(server, "as|33123|*") == (-2, [])
    assert found(server, "nowhere|49|*") == (-2, [])
    assert server.said("ERROR") == []


@EACH
def test_all_rows_with_the_longest_prefix_are_delivered(stored, flavour):
    server = stored(best(flavour), rows_of("98", "9", "98", "97", "98"))
    assert found(server, "g|987|*") == (1, ["row0", "row2", "row4"])


@EACH
def test_all_defaults_are_delivered_if_nothing_longer_matches(stored, flavour):
    server = stored(best(flavour), rows_of("", "5", ""))
    assert found(server, "g|987|*") == (1, ["row0", "row2"])


@EACH
def test_without_a_group_every_row_takes_part(stored, flavour):
    server = stored(best(flavour))
    assert found(server, "*|4930123|*") == (1, ["berlin"])
    assert found(server, "*|4912|*") == (1, ["germany", "germany-from-us"])
    assert found(server, "*|7|*") == (1, ["eu-default", "us-default"])


@EACH
def test_an_empty_table_is_a_clean_miss(stored, flavour):
    server = stored(best(flavour), rows=[])
    assert found(server, "eu|49|*") == (-2, [])
    assert server.said("ERROR") == []


def test_an_entry_equal_to_the_key_matches_and_a_longer_one_does_not(stored):
    server = stored(best(), rows_of("987", "9876", "98"))
    assert found(server, "g|987|*") == (1, ["row0"])


@pytest.mark.parametrize("prefixes", [("1", "", ""), ("", "", "1"), ("", "1", "")])
def test_a_real_entry_beats_defaults_wherever_they_stand(stored, prefixes):
    server = stored(best(), rows_of(*prefixes))
    assert found(server, "g|12|*") == (1, [f"row{prefixes.index('1')}"])


def test_the_columns_behind_the_key_filter_too(stored):
    server = stored(best())
    assert found(server, "*|4912|germany") == (1, ["germany"])


def test_the_key_is_compared_as_a_text(stored):
    server = stored(best(), rows_of("+49", r"\*", "al", "ALI"))
    assert found(server, "g|+4930|*") == (1, ["row0"])
    assert found(server, r"g|\*|*") == (1, ["row1"])
    assert found(server, "g|alice|*") == (1, ["row2"])


# Limits


@EACH
def test_the_limit_counts_visited_rows(stored, flavour):
    """Newest first, a longer entry behind the limit stays unseen."""
    server = stored(best(flavour), rows_of("987", "98", "9", "5"))
    assert found(server, "g|987|*,4") == (1, ["row0"])
    assert found(server, "g|987|*,3") == (1, ["row1"])
    assert found(server, "g|987|*,2") == (1, ["row2"])
    assert found(server, "g|987|*,1") == (-2, [])


def test_a_scan_ends_when_512_rows_are_held(stored):
    call = Call(
        f'tarn_memdb_select_best_match("routes,$hdr(X-Q)", {NAMES}, "1")',
        show=("$cnt($avp(gate))", "$(avp(gate)[0])"),
    )
    # The newest 513 tie; the longer entry is older than all of them.
    server = stored({"best": call}, rows_of("987", *["98"] * 513))
    assert server.call("best", "g|987|*").values == ("512", "row2")
    # With one tie less there is room to find it.
    server = stored({"best": call}, rows_of("987", *["98"] * 511))
    assert server.call("best", "g|987|*").values == ("1", "row0")


def test_512_held_rows_become_512_xavps(stored):
    call = Call(
        'tarn_memdb_xavp_select_best_match("routes,g|98|*", "x", "1")',
        show=("$cnt($xavp(x))", "$xavp(x[0]=>gate)", "$xavp(x[511]=>gate)", "$xavp(x[512]=>gate)"),
    )
    server = stored({"best": call}, rows_of(*["98"] * 513))
    assert server.call("best").values[1:] == ("row1", "row512", None)


# Flags


def test_flags_leave_out_the_end_of_each_entry_but_not_of_its_rank(stored):
    server = stored(prefixed("1"), rows_of("12", "123", "124", "223"))
    assert found(server, "g|12|*") == (1, ["row1", "row2"])


def test_an_entry_no_longer_than_the_flags_matches_every_key(stored):
    server = stored(prefixed("2"), rows_of("12", "345"))
    assert found(server, "g|99|*") == (1, ["row0"])
    assert found(server, "g|3|*") == (1, ["row1"])


@pytest.mark.parametrize("flags", ["$var(cut)", "$avp(cut)"])
def test_flags_from_a_script_variable_or_an_avp_are_read_at_each_call(stored, flags):
    before = f"{flags} = 0;\nif ($hdr(X-Cut) != $null) {flags} = $(hdr(X-Cut){{s.int}});"
    server = stored(prefixed(flags, before), rows_of("12", "123", "9999"))

    def gates(cut):
        values = server.call("best", "g|12|*", headers={"X-Cut": cut}).values
        return [gate for gate in values if gate is not None]

    assert gates(0) == ["row0"]
    assert gates(1) == ["row1"]
    assert gates(4) == ["row2"]
    # Without a sign it is greater than any length, so that the longest entry of all wins.
    assert gates(-1) == ["row2"]


@pytest.mark.parametrize(
    "flags, before",
    [("$var(cut)", '$var(cut) = "1";'), ("$avp(cut)", '$avp(cut) = "1";'), ("$avp(unset)", "")],
)
def test_flags_that_are_no_integer_fail(stored, flags, before):
    server = stored(prefixed(flags, before))
    assert found(server, "eu|49|*") == (-1, [])
    assert server.said("ERROR") == ["Invalid pvar type - param 3: flags\n"]


# Failures


@EACH
@pytest.mark.parametrize("key", ["*", ""])
def test_a_query_without_a_key_fails(stored, flavour, key):
    server = stored(best(flavour))
    assert found(server, f"eu|{key}|*") == (-1, [])
    assert server.said("ERROR") == [
        "memdb_select_best_match: main column (1) value is not set or empty, ignoring this row\n"
    ]


@EACH
def test_an_indexed_column_cannot_hold_the_prefixes(stored, flavour):
    server = stored(best(flavour, column="0"))
    assert found(server, "eu|49|*") == (-1, [])
    assert server.said("ERROR") == [
        "memdb_select_best_match: main column (0) is an index column, ignoring this row\n"
    ]


@pytest.mark.parametrize("column", [3, 4, 2147483647])
def test_a_column_that_the_table_does_not_have_fails(stored, column):
    server = stored(best(column=column))
    assert found(server, "eu|49|x") == (-1, [])
    assert server.said("ERROR") == [
        f"memdb_select_best_match: main column ({column}) is greater than total coumns (3)\n"
    ]


def test_a_column_of_letters_is_the_first(stored):
    plain = Table("routes", columns("prefix", "grp", "gate"))
    server = stored(best(column="prefix"), ["49|eu|germany", "4930|eu|berlin"], plain)
    assert found(server, "49301|*|*") == (1, ["berlin"])


@EACH
def test_an_unknown_table_fails_at_run_time(stored, flavour):
    call = best(flavour, query="$var(table),$hdr(X-Q)", before='$var(table) = "nowhere";')
    if flavour.endswith("xavp"):
        # There the start already looks the table up.
        call = best(flavour, query="routes,$hdr(X-Q)|$hdr(X-Q)")
    server = stored(call)
    assert found(server, "eu|49|*") == (-1, [])
    said = server.said("ERROR")
    assert said[-2].startswith("Could not parse query (")
    assert said[-2].endswith(") for insert\n")
    assert said[-1] == "SELECT failed!\n"


def test_a_query_that_does_not_fit_the_buffer_fails(stored):
    server = stored(best())
    assert found(server, "eu|" + "4" * 4096 + "|*") == (-1, [])
    assert server.said("ERROR") == ["could not print the formatted pv input\n", "SELECT failed!\n"]


# Pseudo-variables


@EACH
def test_pseudo_variables_in_every_place_of_a_query(stored, flavour):
    # Where an XAVP is delivered, the start already looks the table up.
    table = "routes" if FLAVOURS[flavour][1] else "$var(table)"
    calls = best(
        flavour,
        query=f"{table},$fU|$avp(prefix)$hdr(X-Q)|$var(any),$var(limit)",
        before='$var(table) = "routes";\n$avp(prefix) = 49;\n$var(any) = "*";\n$var(limit) = 50;',
    )
    server = stored(calls)
    with server.phone(user="eu") as phone:
        assert server.call("best", "301", phone=phone).values[0] == "berlin"
    with server.phone(user="us") as phone:
        assert server.call("best", "301", phone=phone).values[0] == "germany-from-us"


@EACH
def test_the_source_address_as_a_key(stored, flavour):
    server = stored(best(flavour, query="routes,net|$si|*"), ["net|127.0.0.|near", "net|127.|far"])
    with server.phone(address="127.0.0.7") as phone:
        assert server.call("best", phone=phone).values[0] == "near"
    with server.phone(address="127.7.0.1") as phone:
        assert server.call("best", phone=phone).values[0] == "far"


@pytest.mark.parametrize("flavour", ["xavp", "nl xavp"])
@pytest.mark.parametrize("name", ["$var(name)", "$avp(name)", "$fU", "$hdr(X-Name)"])
def test_the_name_of_the_xavp_may_come_from_a_pseudo_variable(stored, flavour, name):
    before = f'{name} = "way";' if "name)" in name else ""
    function, _ = FLAVOURS[flavour]
    call = Call(
        f'{function}("routes,eu|4930|*", "{name}", "1")', before=before, show=("$xavp(way=>gate)",)
    )
    server = stored({"best": call})
    with server.phone(user="way") as phone:
        result = server.call("best", phone=phone, headers={"X-Name": "way"})
    assert (result.rc, result.values) == (1, ("berlin",))


@pytest.mark.parametrize("flavour", ["xavp", "nl xavp"])
def test_a_query_by_column_names_in_the_xavp_flavours(stored, flavour):
    server = stored(best(flavour, query="routes,grp=eu;prefix=$hdr(X-Q),"))
    assert "Query list after conversion [routes,eu|$hdr(X-Q)|*,]\n" in server.said("INFO")
    assert found(server, "49301") == (1, ["berlin"])


def test_rows_are_delivered_whole_in_both_ways(stored):
    avps = Call(
        'tarn_memdb_select_best_match("routes,eu|4930|*", "$avp(g)|$avp(p)|$avp(w)", "1")',
        show=("$avp(g)", "$avp(p)", "$avp(w)"),
    )
    xavps = Call(
        'tarn_memdb_xavp_select_best_match("routes,eu|4930|*", "x", "1")',
        show=("$xavp(x=>grp)", "$xavp(x=>prefix)", "$xavp(x=>gate)"),
    )
    server = stored({"avps": avps, "xavps": xavps})
    assert server.call("avps").values == ("eu", "4930", "berlin")
    assert server.call("xavps").values == ("eu", "4930", "berlin")
