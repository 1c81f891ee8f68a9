"""The plain select in its four flavours, into AVPs and XAVPs."""

import pytest
from module_host import Call, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)))
ROWS = ["alice|30|rome", "bob|31|oslo", "carol|32|rome"]
FULL = '"$avp(name)|$avp(age)|$avp(city)"'
ALL_NAMES = ("$avp(name)", "$(avp(name)[1])", "$(avp(name)[2])", "$(avp(name)[3])")
FIRST = ("$avp(name)", "$avp(age)", "$avp(city)")

# The flavour without a lock has to answer alike.
LOCKING = pytest.mark.parametrize("flavour", ["", "nl_"], ids=["locked", "nl"])


@pytest.fixture
def stored(host):
    """Starts a server whose table holds ROWS, the last of them the newest."""

    def start(rows=tuple(ROWS), **setup):
        server = host(start=False, tables=[USERS], **setup)
        if rows:
            server.write_rows("users", rows)
        return server.start()

    return start


def avps(flavour, names=FULL, show=FIRST):
    return {"select": Call(f'tarn_memdb_{flavour}select("users,$hdr(X-Q)", {names})', show=show)}


def xavps(flavour, name="x", before="", show=("$xavp(x=>name)",)):
    call = f'tarn_memdb_{flavour}xavp_select("users,$hdr(X-Q)", "{name}")'
    return {"select": Call(call, before=before, show=show)}


# AVPs


@LOCKING
def test_each_name_receives_the_column_of_its_place(stored, flavour):
    server = stored(calls=avps(flavour))
    result = server.call("select", "bob|*|*")
    assert (result.rc, result.values) == (1, ("bob", "31", "oslo"))


@LOCKING
def test_several_rows_are_visited_newest_first_and_read_oldest_first(stored, flavour):
    server = stored(calls=avps(flavour, show=ALL_NAMES))
    assert server.call("select", "*|*|*").values == ("alice", "bob", "carol", None)
    assert server.call("select", "*|*|rome").values == ("alice", "carol", None, None)


@LOCKING
def test_the_limit_counts_delivered_rows(stored, flavour):
    server = stored(calls=avps(flavour, show=ALL_NAMES))
    assert server.call("select", "*|*|*,1").values == ("carol", None, None, None)
    assert server.call("select", "*|*|*,2").values == ("bob", "carol", None, None)
    assert server.call("select", "*|*|rome,2").values == ("alice", "carol", None, None)


@LOCKING
def test_no_match_and_no_rows_are_clean_misses(stored, flavour):
    server = stored(calls=avps(flavour))
    result = server.call("select", "dora|*|*")
    assert (result.rc, result.values) == (-2, (None, None, None))
    assert server.said("ERROR") == []
    empty = stored(rows=[], calls=avps(flavour))
    assert empty.call("select", "*|*|*").rc == -2
    assert empty.said("ERROR") == []


@LOCKING
def test_an_empty_place_skips_its_column(stored, flavour):
    show = ("$avp(a)", "$avp(c)")
    server = stored(calls=avps(flavour, names='"$avp(a)||$avp(c)"', show=show))
    assert server.call("select", "bob|*|*").values == ("bob", "oslo")
    server = stored(calls=avps(flavour, names='"|$avp(a)|$avp(c)"', show=show))
    assert server.call("select", "bob|*|*").values == ("31", "oslo")


def test_lists_shorter_and_longer_than_the_row(stored):
    server = stored(calls=avps("", names='"$avp(name)"'))
    assert server.call("select", "bob|*|*").values == ("bob", None, None)
    longer = '"$avp(name)|$avp(age)|$avp(city)|$avp(more)"'
    server = stored(calls=avps("", names=longer, show=("$avp(city)", "$avp(more)")))
    assert server.call("select", "bob|*|*").values == ("oslo", None)


def test_an_empty_field_is_delivered_as_an_empty_text(stored):
    server = stored(rows=["alice||rome"], calls=avps(""))
    assert server.call("select", "alice|*|*").values == ("alice", "", "rome")
    assert server.call("select", "alice||*").rc == 1


def test_a_new_value_stands_before_older_ones_of_the_name(stored):
    call = Call(
        f'tarn_memdb_select("users,bob|*|*", {FULL})',
        before='$avp(name) = "before";',
        show=ALL_NAMES[:3],
    )
    assert stored(calls={"select": call}).call("select").values == ("bob", "before", None)


def test_a_field_of_digits_is_delivered_as_a_text(stored):
    call = Call(
        f'tarn_memdb_select("users,bob|*|*", {FULL})',
        before='$var(same) = "no";',
        show=("$(avp(age){s.len})",),
    )
    assert stored(calls={"select": call}).call("select").values == ("2",)


@LOCKING
def test_a_query_with_the_wrong_number_of_fields_fails(stored, flavour):
    server = stored(calls=avps(flavour))
    assert server.call("select", "bob|*").rc == -1
    said = server.said("ERROR")
    assert said[0].startswith("Size mismatch")
    assert said[-3].startswith("Wrong number of fields in field list: users,bob|* | ")
    assert said[-2:] == ["Could not parse query (users,bob|*) for insert\n", "SELECT failed!\n"]


@LOCKING
def test_a_query_that_does_not_fit_the_buffer_fails_in_small_letters(stored, flavour):
    server = stored(calls=avps(flavour))
    assert server.call("select", "x" * 4096 + "|*|*").rc == -1
    assert server.said("ERROR") == ["could not print the formatted pv input\n", "SELECT failed!\n"]


@pytest.mark.parametrize(
    "limit, found",
    [("", 3), (",", 3), (",abc", 3), (",99999999999", 3), (",2,whatever", 2), (",+1", 1)],
)
def test_what_may_stand_for_the_limit(stored, limit, found):
    server = stored(calls=avps("", show=ALL_NAMES))
    values = server.call("select", f"*|*|*{limit}").values
    assert len([value for value in values if value]) == found


@pytest.mark.parametrize("limit", ["0", "-1", "+"])
def test_a_limit_of_nothing_fails(stored, limit):
    server = stored(calls=avps(""))
    assert server.call("select", f"*|*|*,{limit}").rc == -1
    assert server.said("ERROR") == [
        "Invalid value for maximum result count\n",
        f"Could not parse query (users,*|*|*,{limit}) for insert\n",
        "SELECT failed!\n",
    ]


@LOCKING
def test_a_query_by_column_names(stored, flavour):
    call = Call(
        f'tarn_memdb_{flavour}select("users,city=$hdr(X-Q);,1", {FULL})', show=ALL_NAMES[:2]
    )
    server = stored(calls={"select": call})
    assert "Query list after conversion [users,*|*|$hdr(X-Q),1]\n" in server.said("INFO")
    assert server.call("select", "rome").values == ("carol", None)
    assert server.call("select", "paris").rc == -2


def test_the_first_of_two_items_with_one_name_wins(stored):
    call = Call(f'tarn_memdb_select("users,name=bob;name=alice,", {FULL})', show=FIRST)
    assert stored(calls={"select": call}).call("select").values[0] == "bob"


def test_a_query_by_column_names_without_its_last_comma_fails_at_each_call(stored):
    call = Call(f'tarn_memdb_select("users,name=bob", {FULL})')
    server = stored(calls={"select": call})
    assert server.call("select").rc == -1
    assert server.said("ERROR") == [
        "Field list is missing\n",
        "Could not parse query (bob|*|*) for insert\n",
        "SELECT failed!\n",
    ]


def test_quotes_around_a_named_value_are_not_part_of_it(stored):
    call = Call(f"tarn_memdb_select(\"users,city='rome';name=carol,\", {FULL})", show=FIRST)
    assert stored(calls={"select": call}).call("select").values == ("carol", "32", "rome")


def test_an_empty_list_of_names_selects_every_row(stored):
    call = Call(f'tarn_memdb_select("users,,2", {FULL})', show=ALL_NAMES[:3])
    assert stored(calls={"select": call}).call("select").values == ("bob", "carol", None)


def test_an_empty_named_value_is_the_empty_text(stored):
    call = Call(f'tarn_memdb_select("users,city=rome;age=,", {FULL})', show=ALL_NAMES[:2])
    server = stored(rows=["alice|30|rome", "bob||rome"], calls={"select": call})
    assert server.call("select").values == ("bob", None)


def test_pseudo_variables_in_every_place_of_a_query(stored):
    call = Call(
        'tarn_memdb_select("users,$fU|$avp(age)|$var(city),$var(limit)", "$avp(a)|$avp(b)")',
        before='$avp(age) = 30;\n$var(city) = "*";\n$var(limit) = 1;',
        show=("$avp(a)", "$avp(b)"),
    )
    server = stored(calls={"select": call})
    with server.phone(user="alice") as phone:
        assert server.call("select", phone=phone).values == ("alice", "30")
    with server.phone(user="bob") as phone:
        assert server.call("select", phone=phone).rc == -2


def test_the_source_address_as_a_key(stored):
    call = Call('tarn_memdb_select("users,$si|*|*", "|$avp(age)")', show=("$avp(age)",))
    server = stored(rows=["127.0.0.3|1|x"], calls={"select": call})
    with server.phone(address="127.0.0.3") as phone:
        assert server.call("select", phone=phone).values == ("1",)
    assert server.call("select").rc == -2


# XAVPs


@LOCKING
def test_a_row_becomes_one_xavp_with_a_member_for_each_column(stored, flavour):
    show = ("$xavp(x=>name)", "$xavp(x=>age)", "$xavp(x=>city)", "$xavp(x[1]=>name)")
    server = stored(calls=xavps(flavour, show=show))
    result = server.call("select", "bob|*|*")
    assert (result.rc, result.values) == (1, ("bob", "31", "oslo", None))


@LOCKING
def test_each_row_has_an_xavp_of_its_own(stored, flavour):
    show = tuple(f"$xavp(x[{i}]=>{member})" for i in range(3) for member in ("name", "city"))
    server = stored(calls=xavps(flavour, show=show))
    values = server.call("select", "*|*|rome").values
    assert values[:4] == ("alice", "rome", "carol", "rome")
    assert values[4:] == (None, None)


@LOCKING
def test_the_limit_counts_xavps(stored, flavour):
    show = tuple(f"$xavp(x[{i}]=>name)" for i in range(3))
    server = stored(calls=xavps(flavour, show=show))
    assert server.call("select", "*|*|*,2").values == ("bob", "carol", None)


@LOCKING
def test_an_xavp_select_without_a_match_makes_none(stored, flavour):
    server = stored(calls=xavps(flavour))
    result = server.call("select", "dora|*|*")
    assert (result.rc, result.values) == (-2, (None,))
    assert stored(rows=[], calls=xavps(flavour)).call("select", "*|*|*").rc == -2


@LOCKING
def test_the_name_of_the_xavp_may_come_from_a_pseudo_variable(stored, flavour):
    server = stored(calls=xavps(flavour, name="$var(n)", before='$var(n) = "x";'))
    assert server.call("select", "bob|*|*").values == ("bob",)


def test_an_xavp_holds_an_empty_field_as_an_empty_text(stored):
    server = stored(rows=["alice||rome"], calls=xavps("", show=("$xavp(x=>age)", "$xavp(x=>city)")))
    assert server.call("select", "alice|*|*").values == ("", "rome")


@LOCKING
def test_an_xavp_select_by_column_names(stored, flavour):
    call = Call(
        f'tarn_memdb_{flavour}xavp_select("users,city=oslo,", "x")', show=("$xavp(x=>name)",)
    )
    assert stored(calls={"select": call}).call("select").values == ("bob",)


def test_an_xavp_select_with_a_bad_query_fails_like_the_others(stored):
    server = stored(calls=xavps(""))
    assert server.call("select", "bob").rc == -1
    assert server.said("ERROR")[-2:] == [
        "Could not parse query (users,bob) for insert\n",
        "SELECT failed!\n",
    ]
