"""The numeric selects: rows outside two limits, and the count of rows above the lower one."""

import pytest
from module_host import Call, Table, columns

METERS = Table("meters", columns("site", "value", "name", indexed=("site",)), max_rows=40000)
# The last is the newest.
VALUES = {"nine": 9, "ten": 10, "fifteen": 15, "twenty": 20, "twentyone": 21, "big": 500}
ROWS = [f"a|{value}|{name}" for name, value in VALUES.items()]


def outside(lower="10", upper="20", column="1", query="meters,$hdr(X-Q)", before=""):
    """A call that shows the names delivered, the last one ahead of the others."""
    function = "tarn_memdb_nl_select_field_out_of_range"
    return {
        "range": Call(
            f'{function}("{query}", "||$avp(name)", "{column}", "{lower}", "{upper}")',
            before=before,
            show=tuple(f"$(avp(name)[{i}])" for i in range(4)),
        )
    }


def within(lower="10", upper="20", column="1", target="$var(count)", before="", names="||$avp(n)"):
    """A call that shows the count, and what came into the AVP name list."""
    function = "tarn_memdb_nl_select_field_within_the_range"
    limits = f'"{column}", "{lower}", "{upper}"'
    return {
        "range": Call(
            f'{function}("meters,$hdr(X-Q)", "{names}", {limits}, "{target}")',
            before=before,
            show=(target if target.startswith("$") else "no target", "$avp(n)"),
        )
    }


@pytest.fixture
def stored(host):
    def start(calls, rows=tuple(ROWS), table=METERS, **setup):
        server = host(start=False, tables=[table], calls=calls, **setup)
        server.write_rows(table.name, rows)
        return server.start()

    return start


def found(server, query="a|*|*"):
    result = server.call("range", query)
    return result.rc, [name for name in result.values if name is not None]


def counted(server, query="a|*|*"):
    result = server.call("range", query)
    assert result.values[1] is None, "the count delivers no row"
    return result.rc, result.values[0]


# Out of range


def test_rows_outside_the_limits_are_delivered_and_their_number_is_the_code(stored):
    server = stored(outside())
    assert found(server) == (3, ["nine", "twentyone", "big"])
    assert found(server, "b|*|*") == (-2, [])
    assert found(server, "a|*|big") == (1, ["big"])
    assert server.said("ERROR") == []


def test_rows_that_are_all_within_the_limits_are_a_clean_miss(stored):
    server = stored(outside("9", "500"))
    assert found(server) == (-2, [])
    assert server.said("ERROR") == []


def test_limits_in_the_wrong_order_leave_every_row_outside(stored):
    assert found(stored(outside("20", "10")), "a|*|*,3")[0] == 3


def test_a_text_that_is_no_number_counts_as_0(stored):
    server = stored(outside(), ["a||empty", "a|x15|letters", "a|15x|fifteen", "a|-7|negative"])
    assert found(server) == (3, ["empty", "letters", "negative"])


def test_the_limit_of_the_query_counts_rows_held(stored):
    """Newest first: two rows are held, however many in range are visited in between."""
    server = stored(outside(), [*ROWS[:1], *["a|15|inside"] * 20, *ROWS[4:]])
    assert found(server, "a|*|*,2") == (2, ["twentyone", "big"])
    assert found(server, "a|*|*,3") == (3, ["nine", "twentyone", "big"])


def test_a_scan_ends_after_512_visited_rows(stored):
    inside = ["a|15|inside"]
    assert found(stored(outside(), ["a|9|old", *inside * 511])) == (1, ["old"])
    assert found(stored(outside(), ["a|9|old", *inside * 512])) == (-2, [])


def test_the_value_of_the_query_at_the_column_has_no_effect(stored):
    server = stored(outside())
    assert found(server, "a|10|*")[0] == found(server, "a||*")[0] == found(server, "a|x|*")[0] == 3


@pytest.mark.parametrize("kind", ["$var", "$avp"])
def test_limits_from_script_variables_and_avps_are_read_at_each_call(stored, kind):
    before = f"{kind}(low) = $(hdr(X-Low){{s.int}});\n{kind}(high) = $(hdr(X-High){{s.int}});"
    server = stored(outside(f"{kind}(low)", f"{kind}(high)", before=before))

    def code(low, high):
        return server.call("range", "a|*|*", headers={"X-Low": low, "X-High": high}).rc

    assert code(10, 20) == 3
    assert code(9, 20) == 2
    assert code(9, 21) == 1
    assert code(9, 500) == -2
    assert code(-5, -1) == 6


def test_one_limit_may_be_a_number_and_the_other_a_variable(stored):
    assert found(stored(outside("10", "$var(high)", before="$var(high) = 500;"))) == (1, ["nine"])
    assert found(stored(outside("$avp(low)", "20", before="$avp(low) = 9;")))[0] == 2


LIMIT_TROUBLE = {
    "lower": (outside("$var(l)", "20", before='$var(l) = "9";'), "param 3: lower range limit"),
    "upper": (outside("10", "$var(l)", before='$var(l) = "9";'), "param 4: upper range limit"),
    "unset lower": (outside("$avp(l)", "20"), "param 3: lower range limit"),
    "unset upper": (outside("10", "$avp(l)"), "param 4: upper range limit"),
}


@pytest.mark.parametrize("calls, which", LIMIT_TROUBLE.values(), ids=LIMIT_TROUBLE)
def test_a_limit_that_is_no_integer_fails(stored, calls, which):
    server = stored(calls)
    assert found(server) == (-1, [])
    assert server.said("ERROR") == [f"Invalid pvar type - {which}\n"]


def test_pseudo_variables_in_every_place_of_the_query(stored):
    calls = outside(
        query="$var(table),$fU|$si|$avp(name)$hdr(X-Q),$var(limit)",
        before='$var(table) = "meters";\n$avp(name) = "b";\n$var(limit) = 9;',
    )
    server = stored(calls)
    with server.phone(user="a") as phone:
        assert server.call("range", "ig", phone=phone).rc == 1
    with server.phone(user="b") as phone:
        assert server.call("range", "ig", phone=phone).rc == -2


# Within the range


def test_rows_above_the_lower_limit_are_counted_whatever_the_upper_one(stored):
    """15, 20, 21 and 500 are above 10; a row at the limit isn't."""
    assert counted(stored(within("10", "20"))) == (-2, "4")
    assert counted(stored(within("10", "0"))) == (-2, "4")
    assert counted(stored(within("500", "1000"))) == (-2, "0")
    assert counted(stored(within("0", "0"))) == (-2, "6")


def test_the_count_follows_the_filter_of_the_other_columns(stored):
    server = stored(within())
    assert counted(server, "a|*|big") == (-2, "1")
    assert counted(server, "b|*|*") == (-2, "0")
    assert counted(server, "a|no such value|*") == (-2, "4")
    assert server.said("ERROR") == []


def test_a_count_of_nothing_is_set_to_0(stored):
    server = stored(within(before="$var(count) = 77;"), rows=[])
    assert counted(server) == (-2, "0")


def test_the_count_stops_after_the_limit_of_visited_rows(stored):
    server = stored(within())
    assert counted(server, "a|*|*,1") == (-2, "1")
    assert counted(server, "a|*|*,5") == (-2, "4")
    # The two oldest are 9 and 10, which don't count: the newest are visited first.
    server = stored(within(), [*ROWS[2:], *ROWS[:2]])
    assert counted(server, "a|*|*,2") == (-2, "0")
    assert counted(server, "a|*|*,3") == (-2, "1")


def test_the_count_stops_at_32000_rows(stored):
    server = stored(within("0", "0"), ["a|1|x"] * 32010, memory=64)
    assert counted(server) == (-2, "32000")
    assert counted(server, "a|*|*,32005") == (-2, "32000")
    assert counted(server, "a|*|*,31999") == (-2, "31999")


@pytest.mark.parametrize("target", ["$var(count)", "$avp(count)"])
@pytest.mark.parametrize("kind", ["$var", "$avp"])
def test_limits_and_target_may_be_script_variables_and_avps(stored, target, kind):
    before = f"{kind}(low) = 15;\n{kind}(high) = 3;"
    server = stored(within(f"{kind}(low)", f"{kind}(high)", target=target, before=before))
    assert counted(server) == (-2, "3")


def test_the_count_is_an_integer_for_the_script(stored):
    call = within()["range"]
    added = Call(
        f"{call.do};\n  $var(sum) = $var(count) + 1",
        show=("$var(sum)",),
    )
    assert stored({"range": added}).call("range", "a|*|*").values == ("5",)


def test_a_target_that_stayed_text_is_told_and_passed_over(stored):
    server = stored(within(target="count"))
    assert counted(server) == (-2, "no target")
    assert server.said("ERROR") == ["ALARM REG_USERS DBG Could not set AVP for rowCount_in\n"]


@pytest.mark.parametrize("kind, which", [("low", "3: lower"), ("high", "4: upper")])
def test_a_count_with_a_limit_that_is_no_integer_fails_and_sets_nothing(stored, kind, which):
    before = f'$var(low) = 1;\n$var(high) = 2;\n$var({kind}) = "3";\n$var(count) = 77;'
    server = stored(within("$var(low)", "$var(high)", before=before))
    assert counted(server) == (-1, "77")
    assert server.said("ERROR") == [f"Invalid pvar type - param {which} range limit\n"]


def test_pseudo_variables_in_every_place_of_the_counting_query(stored):
    call = Call(
        "tarn_memdb_nl_select_field_within_the_range"
        '("$var(table),$fU|$si|$avp(name)$hdr(X-Q),$var(limit)", "||$avp(n)", "1", "$avp(low)",'
        ' "$var(high)", "$avp(count)")',
        before='$var(table) = "meters";\n$avp(name) = "b";\n$var(limit) = 9;\n$avp(low) = 499;\n'
        "$var(high) = 1;",
        show=("$avp(count)",),
    )
    server = stored({"range": call})
    with server.phone(user="a") as phone:
        assert server.call("range", "ig", phone=phone).values == ("1",)
        assert server.call("range", "x", phone=phone).values == ("0",)
    with server.phone(user="b") as phone:
        assert server.call("range", "ig", phone=phone).values == ("0",)


# What both share


BOTH = pytest.mark.parametrize("make", [outside, within])


@BOTH
def test_an_indexed_column_is_refused(stored, make):
    server = stored(make(column="0"))
    assert server.call("range", "a|*|*").rc == -1
    assert server.said("ERROR") == ["Main column (0) is an index column, ignoring this row\n"]


@BOTH
@pytest.mark.parametrize("column", [3, 4])
def test_a_column_that_the_table_does_not_have_is_refused(stored, make, column):
    server = stored(make(column=column))
    assert server.call("range", "a|*|*").rc == -1
    assert server.said("ERROR") == [f"main column ({column}) is greater than total coumns (3)\n"]


@BOTH
def test_a_query_that_cannot_be_read_has_the_last_line_of_the_selects(stored, make):
    server = stored(make())
    assert server.call("range", "a|*").rc == -1
    assert server.said("ERROR")[-2:] == [
        "Could not parse query (meters,a|*) for insert\n",
        "SELECT failed!\n",
    ]
    server.log_start = server.log_path.stat().st_size
    assert server.call("range", "a" * 4096).rc == -1
    assert server.said("ERROR") == ["could not print the formatted pv input\n", "SELECT failed!\n"]


@BOTH
def test_a_first_column_is_read_like_any_other(stored, make):
    plain = Table("meters", columns("value", "site", "name"))
    rows = [f"{value}|a|{name}" for name, value in VALUES.items()]
    server = stored(make(column="0"), rows, plain)
    if make is outside:
        assert found(server, "*|a|*") == (3, ["nine", "twentyone", "big"])
    else:
        assert counted(server, "*|a|*") == (-2, "4")
