"""Starts that must not happen: each cause by its log lines, with the table files untouched."""

import pytest
from module_host import OTHER_MODULES, Call, Table, columns, schema_text

USERS = Table("users", columns("name", "age", "city"))
STORED = ["alice|30|rome", "# a line that a store would drop", "bob|31|oslo"]
OLD = ["alice|29|rome"]

HEAD = schema_text.head("{files}", "{backups}", 1)
BLOCK = schema_text.table("users", ("name 10 1", "age 3 0", "city 20 0"))

NO_SCHEMA = "Could not create table(s) schema from configuration file '{schema}'\n"
BAD_LINE = "Error on reading! Maybe a line is missing"


def refuse_with_files(host, refused, **setup):
    """Has a start with stored rows refused, and checks that the rows stay as they were."""
    server = host(start=False, tables=[USERS], **setup)
    server.write_rows("users", STORED)
    server.write_rows("users", OLD, backup=True)
    before = server.file_states()
    refused(server)
    assert server.file_states() == before
    return server


def errors_of(server):
    return server.said("ERROR", "CRITICAL")


def test_no_schema_path(host, refused):
    server = refuse_with_files(host, refused, params={"cfg_file_path": None})
    assert errors_of(server) == [
        "Could not open file '' with table(s) description\n",
        NO_SCHEMA.format(schema=""),
    ]


def test_a_schema_file_that_does_not_exist(host, refused):
    server = refuse_with_files(host, refused, params={"cfg_file_path": "/nonexistent/schema"})
    assert errors_of(server) == [
        "Could not open file '/nonexistent/schema' with table(s) description\n",
        NO_SCHEMA.format(schema="/nonexistent/schema"),
    ]


@pytest.mark.parametrize(
    "schema",
    [
        pytest.param(HEAD + BLOCK.replace("FILE_NAME=", "FILE="), id="misspelt file name key"),
        pytest.param(
            HEAD + BLOCK.replace("FLAG=0\n", "FLAG=0\nRANGE=dynamic\n"),
            id="range of a table without ports",
        ),
        pytest.param(
            HEAD
            + BLOCK.replace(
                "USE_INDEX=0\nDUPLICATED_DATA_CHECK=0\n",
                "DUPLICATED_DATA_CHECK=0\nUSE_INDEX=0\n",
            ),
            id="keys out of order",
        ),
        pytest.param(
            HEAD + BLOCK.replace("city 20 0\n", "city 20 0\nland 20 0\n"),
            id="one field line too many",
        ),
        pytest.param(
            HEAD + BLOCK.replace("FLAG=0\n", "FLAG=0\nLOG_TAG=sixteen_letters_x\n"),
            id="tag of more than 15 characters",
        ),
        pytest.param(
            HEAD + BLOCK.replace("users\n", "users_with_a_name_of_32_characters\n", 1),
            id="table name that does not fit",
        ),
        pytest.param(
            HEAD + BLOCK.replace("name 10", "name_of_more_than_31_characters_x 10"),
            id="column name that does not fit",
        ),
        pytest.param(
            HEAD + BLOCK.replace("users.tbl", "x" * 256), id="file name that does not fit"
        ),
        pytest.param(
            HEAD.replace("{backups}", "/" + "x" * 256) + BLOCK, id="directory that does not fit"
        ),
    ],
)
def test_a_schema_with_a_bad_line(host, refused, schema):
    server = refuse_with_files(host, refused, schema=schema)
    assert errors_of(server) == [BAD_LINE, NO_SCHEMA.format(schema=server.schema_path)]


def test_no_pv_module(host, refused):
    without_pv = tuple(name for name in OTHER_MODULES if name != "pv.so")
    server = refuse_with_files(
        host,
        refused,
        modules=without_pv + ("tarn_memdb",),
        script="request_route { exit; }\n",
    )
    assert errors_of(server) == [
        "Cannot import pv functions (pv module must be loaded before this module)\n"
    ]


def test_a_pv_module_that_is_loaded_later_serves_all_the_same(host):
    """The server loads every module before it starts the first, so the order doesn't matter."""
    pv_last = tuple(name for name in OTHER_MODULES if name != "pv.so") + ("tarn_memdb", "pv.so")
    call = Call('tarn_memdb_xavp_select("users,bob|*|*", "x")', show=("$xavp(x=>city)",))
    server = host(start=False, tables=[USERS], modules=pv_last, calls={"select": call})
    server.write_rows("users", STORED)
    server.start()
    assert server.call("select").values == ("oslo",)


AVPS = '"$avp(a)|$avp(b)|$avp(c)"'

# What the script calls, and the error lines that this has to give.
FIX_UPS = {
    "select: no table name": (
        f'tarn_memdb_select(",a|b|c", {AVPS})',
        ["Table name is missing\n"],
    ),
    "select: no field list": (
        f'tarn_memdb_select("users", {AVPS})',
        ["Field list is missing\n"],
    ),
    "select: unknown table": (
        f'tarn_memdb_select("nowhere,a|b|c", {AVPS})',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "select: table from a pseudo-variable": (
        f'tarn_memdb_select("$var(t),a|b|c", {AVPS})',
        ["Table '$var(t)' was not found\n", "Table not found\n"],
    ),
    "select: unknown column": (
        f'tarn_memdb_select("users,name=alice;street=x,", {AVPS})',
        ["Parameter [street] not found in the table [users]\n"],
    ),
    "select: column in other letters": (
        f'tarn_memdb_select("users,Name=alice,", {AVPS})',
        ["Parameter [Name] not found in the table [users]\n"],
    ),
    "select: a list without AVPs": (
        'tarn_memdb_select("users,a|b|c", "$var(a)")',
        ["Wrong item name list [$var(a)]!\n", "bad format in P2 [$var(a)]\n"],
    ),
    "select: a list with one that is no AVP": (
        'tarn_memdb_select("users,a|b|c", "$avp(a)|$var(b)")',
        ["Wrong item name list [$avp(a)|$var(b)]!\n", "bad format in P2 [$avp(a)|$var(b)]\n"],
    ),
    "select: a list of plain words": (
        'tarn_memdb_select("users,a|b|c", "a|b")',
        ["Wrong item name list [a|b]!\n", "bad format in P2 [a|b]\n"],
    ),
    "select: an empty list": (
        'tarn_memdb_select("users,a|b|c", "")',
        ["bad format in P2 []\n"],
    ),
    "select: a value with a blank in it": (
        f'tarn_memdb_select("users,name=alice smith,", {AVPS})',
        ["Invalid formatted values [name=alice smith]\n"],
    ),
    "select: an open quote": (
        f'tarn_memdb_select("users,name=\'alice,10", {AVPS})',
        ["Invalid formatted values [name='alice]\n"],
    ),
    "select: an item without a name": (
        f'tarn_memdb_select("users,name=alice;=30,", {AVPS})',
        ["Parameter [] not found in the table [users]\n"],
    ),
    "nl_select: unknown table": (
        f'tarn_memdb_nl_select("nowhere,a|b|c", {AVPS})',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "nl_select: a list without AVPs": (
        'tarn_memdb_nl_select("users,a|b|c", "$var(a)")',
        ["Wrong item name list [$var(a)]!\n", "bad format in P2 [$var(a)]\n"],
    ),
    "xavp_select: unknown table": (
        'tarn_memdb_xavp_select("nowhere,a|b|c", "x")',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "xavp_select: table from a pseudo-variable": (
        'tarn_memdb_xavp_select("$var(t),a|b|c", "x")',
        ["Table '$var(t)' was not found\n", "Table not found\n"],
    ),
    "nl_xavp_select: unknown column": (
        'tarn_memdb_nl_xavp_select("users,street=x,", "x")',
        ["Parameter [street] not found in the table [users]\n"],
    ),
    "insert: unknown table": (
        'tarn_memdb_insert("nowhere,a|b|c")',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "insert: no field list": (
        'tarn_memdb_insert("users")',
        ["Field list is missing\n"],
    ),
    "insert: unknown column": (
        'tarn_memdb_insert("users,street=x,")',
        ["Parameter [street] not found in the table [users]\n"],
    ),
    "insert: refused format": (
        'tarn_memdb_insert("users,$nosuch(x)|b|c")',
        ["Wrong format [users,$nosuch(x)|b|c]\n"],
    ),
    "delete: unknown table": (
        'tarn_memdb_delete("nowhere,a|b|c")',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "delete: unknown column": (
        'tarn_memdb_delete("users,street=x,")',
        ["Parameter [street] not found in the table [users]\n"],
    ),
    "update: unknown table": (
        'tarn_memdb_update("nowhere,a|b|c", "a|b|c")',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "update: refused format of the values": (
        'tarn_memdb_update("users,a|b|c", "$nosuch(x)|*|*")',
        ["Wrong format [$nosuch(x)|*|*]\n"],
    ),
    "row_count: refused format of the table": (
        'tarn_memdb_row_count("$nosuch(x)", "$avp(n)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "row_count: refused format of the target": (
        'tarn_memdb_row_count("users", "$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "best_match: column number below 0": (
        f'tarn_memdb_select_best_match("users,a|b|c", {AVPS}, "-1")',
        ["bad format in P3 [-1]\n"],
    ),
    "best_match: a list without AVPs": (
        'tarn_memdb_select_best_match("users,a|b|c", "$var(a)", "1")',
        ["Wrong item name list [$var(a)]!\n", "bad format in P2 [$var(a)]\n"],
    ),
    "nl_best_match: an empty list": (
        'tarn_memdb_nl_select_best_match("users,a|b|c", "", "1")',
        ["bad format in P2 []\n"],
    ),
    "best_match_prefix: length below 0": (
        f'tarn_memdb_nl_select_best_match_prefix("users,a|b|c", {AVPS}, "1", "-2")',
        ["bad format in P4 [-2]\n"],
    ),
    "best_match_prefix: length from no AVP or script variable": (
        f'tarn_memdb_nl_select_best_match_prefix("users,a|b|c", {AVPS}, "1", "$ru")',
        ["Pseudo variable type not accepted!\n"],
    ),
    "out_of_range: lower limit from no AVP or script variable": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "$ru", "9")',
        ["Pseudo variable type not accepted!\n"],
    ),
    "out_of_range: upper limit from no AVP or script variable": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "1", "$fU")',
        ["Pseudo variable type not accepted!\n"],
    ),
    "out_of_range: lower limit below 0": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "-1", "9")',
        ["bad format in P4 [-1]\n"],
    ),
    "out_of_range: upper limit below 0": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "1", "-9")',
        ["bad format in P5 [-9]\n"],
    ),
    "out_of_range: upper limit from an unknown pseudo-variable": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "1", "$nosuch(x)")',
        ["Param 4 error!\n"],
    ),
    "within_the_range: target that is no AVP or script variable": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "1", "1", "9", "$ru")',
        ["tarn_memdb_query_fixup3(): Pseudo variable type not accepted!\n"],
    ),
    "within_the_range: unknown target": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "1", "1", "9", "$nosuch(x)")',
        ["tarn_memdb_query_fixup3(): Param 1 error!\n"],
    ),
    "subnetmask: refused format of the third parameter": (
        f'tarn_memdb_nl_select_subnetmask("users,a|b|c", {AVPS}, "$nosuch(x)", "b", "c")',
        ["Wrong format[$nosuch(x)]\n"],
    ),
    "subnetmask: refused format of the last parameter": (
        f'tarn_memdb_nl_select_subnetmask("users,a|b|c", {AVPS}, "a", "b", "$nosuch(x)")',
        ["Wrong format[$nosuch(x)]\n"],
    ),
    "subnetmask: a list without AVPs": (
        'tarn_memdb_nl_select_subnetmask("users,a|b|c", "a", "a", "b", "c")',
        ["Wrong item name list [a]!\n", "bad format in P2 [a]\n"],
    ),
    "xavp_best_match: column number below 0": (
        'tarn_memdb_xavp_select_best_match("users,a|b|c", "x", "-1")',
        ["bad format in P3 [-1]\n"],
    ),
    "nl_xavp_best_match: unknown table": (
        'tarn_memdb_nl_xavp_select_best_match("nowhere,a|b|c", "x", "1")',
        ["Table 'nowhere' was not found\n", "Table not found\n"],
    ),
    "by_port_type: refused format of the type": (
        f'tarn_memdb_select_by_port_type("$nosuch(x)", "users,a|b|c|d", {AVPS})',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "by_port_type: a list without AVPs, named as widened": (
        'tarn_memdb_nl_select_by_port_type("INT", "users,a|b|c|d", "$avp(a)|$avp(b)|$var(c)")',
        [
            "Wrong item name list [$avp(a)|$avp(b)||$var(c)]!\n",
            "bad format in P2 [$avp(a)|$avp(b)||$var(c)]\n",
            "fixup failed!\n",
        ],
    ),
    "best_match_prefix: length from an unknown pseudo-variable": (
        f'tarn_memdb_nl_select_best_match_prefix("users,a|b|c", {AVPS}, "1", "$nosuch(x)")',
        ["Param 4 error!\n"],
    ),
    "out_of_range: column number below 0": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "-1", "1", "9")',
        ["bad format in P3 [-1]\n"],
    ),
    "out_of_range: a list without AVPs": (
        'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", "a", "1", "1", "9")',
        ["Wrong item name list [a]!\n", "bad format in P2 [a]\n"],
    ),
    "out_of_range: lower limit from an unknown pseudo-variable": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "$nosuch(x)", "9")',
        ["Param 4 error!\n"],
    ),
    "within_the_range: column number below 0": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "-2", "1", "9", "$var(n)")',
        ["bad format in P3 [-2]\n"],
    ),
    "within_the_range: lower limit below 0": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "1", "-1", "9", "$var(n)")',
        ["bad format in P4 [-1]\n"],
    ),
    "within_the_range: upper limit from no AVP or script variable": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "1", "1", "$si", "$var(n)")',
        ["Pseudo variable type not accepted!\n"],
    ),
    "within_the_range: an empty list": (
        'tarn_memdb_nl_select_field_within_the_range("users,a|b|c", "", "1", "1", "9", "$var(n)")',
        ["bad format in P2 []\n"],
    ),
    "subnetmask: refused format of the fourth parameter": (
        f'tarn_memdb_nl_select_subnetmask("users,a|b|c", {AVPS}, "a", "$nosuch(x)", "c")',
        ["Wrong format[$nosuch(x)]\n"],
    ),
    "xavp_best_match: unknown column": (
        'tarn_memdb_xavp_select_best_match("users,street=x,", "x", "1")',
        ["Parameter [street] not found in the table [users]\n"],
    ),
    "xavp_best_match: refused format": (
        'tarn_memdb_xavp_select_best_match("users,$nosuch(x)|b|c", "x", "1")',
        ["Wrong format [users,$nosuch(x)|b|c]\n"],
    ),
    "nl_xavp_best_match: column number below 0": (
        'tarn_memdb_nl_xavp_select_best_match("users,a|b|c", "x", "-7")',
        ["bad format in P3 [-7]\n"],
    ),
    "by_port_type: an empty place and one that is no AVP": (
        'tarn_memdb_select_by_port_type("INT", "users,a|b|c|d", "|$ru|$avp(c)")',
        [
            "Wrong item name list [|$ru||$avp(c)]!\n",
            "bad format in P2 [|$ru||$avp(c)]\n",
            "fixup failed!\n",
        ],
    ),
    "nl_by_port_type: refused format of the type": (
        f'tarn_memdb_nl_select_by_port_type("$nosuch(x)", "users,a|b|c|d", {AVPS})',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "insert statement: refused format": (
        'sqll_tarn_memdb_insert("INSERT INTO users name VALUES $nosuch(x)")',
        ["Wrong format [INSERT INTO users name VALUES $nosuch(x)]\n"],
    ),
    "update statement: refused format": (
        'sqll_tarn_memdb_update("UPDATE users SET name=$nosuch(x) WHERE age=1")',
        ["Wrong format [UPDATE users SET name=$nosuch(x) WHERE age=1]\n"],
    ),
    "select statement: refused format": (
        'sqll_tarn_memdb_select("SELECT $nosuch(x) FROM users WHERE age=1", "$avp(a)")',
        ["Wrong format [SELECT $nosuch(x) FROM users WHERE age=1]\n"],
    ),
    "select statement: a list with one that is no AVP": (
        'sqll_tarn_memdb_select("SELECT age FROM users WHERE age=1", "$avp(a);$ru")',
        ["Bad format in param n 2 [$avp(a);$ru]\n"],
    ),
    "statement: refused format": (
        'sqll_tarn_memdb_delete("DELETE FROM users WHERE name=$nosuch(x)")',
        ["Wrong format [DELETE FROM users WHERE name=$nosuch(x)]\n"],
    ),
    "statement: a list without AVPs": (
        'sqll_tarn_memdb_select("SELECT * FROM users", "$var(a)")',
        ["Bad format in param n 2 [$var(a)]\n"],
    ),
    "get_port: refused format of the map word": (
        'tarn_memdb_get_port("$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "get_port: refused format of the map word beside an AVP": (
        'tarn_memdb_get_port("$nosuch(x)", "$avp(p)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "get_port: refused format of the target": (
        'tarn_memdb_get_port("INT", "$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "get_port_from_range: refused format of the map word": (
        'tarn_memdb_get_port_from_range("$nosuch(x)", "21000")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "get_port_from_range: refused format of the base port": (
        'tarn_memdb_get_port_from_range("INT", "$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "set_port: refused format of the port": (
        'tarn_memdb_set_port("$nosuch(x)", "INT")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "free_port: refused format of the map word": (
        'tarn_memdb_free_port("$nosuch(x)", "21000")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "free_port: refused format of the port": (
        'tarn_memdb_free_port("INT", "$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
    "set_port: refused format of the map word": (
        'tarn_memdb_set_port("21000", "$nosuch(x)")',
        ["Wrong format [$nosuch(x)]\n"],
    ),
}


@pytest.mark.parametrize("call, errors", FIX_UPS.values(), ids=FIX_UPS.keys())
def test_a_script_with_a_call_that_cannot_be_prepared(host, refused, call, errors):
    server = refuse_with_files(host, refused, calls={"never": Call(call)})
    assert errors_of(server) == errors


ACCEPTED = {
    "best match doesn't look at the query": (
        f'tarn_memdb_select_best_match("$var(t),a|b|c", {AVPS}, "1")'
    ),
    "a column number of letters is 0": (
        f'tarn_memdb_select_best_match("users,a|b|c", {AVPS}, "abc")'
    ),
    "limits may be numbers, AVPs and script variables": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "$var(x)", "$avp(y)")'
    ),
    "a lone dollar is a number": (
        f'tarn_memdb_nl_select_field_out_of_range("users,a|b|c", {AVPS}, "1", "$", "9")'
    ),
    "a target may be an AVP": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,a|b|c", {AVPS}, "1", "1", "9", "$avp(n)")'
    ),
    "a target may stay text": (
        'tarn_memdb_nl_select_field_within_the_range("users,a|b|c", ' f'{AVPS}, "1", "1", "9", "n")'
    ),
}


@pytest.mark.parametrize("call", ACCEPTED.values(), ids=ACCEPTED.keys())
def test_a_call_that_can_be_prepared_although_it_looks_odd(host, call):
    server = host(tables=[USERS], calls={"never": Call(call)})
    assert errors_of(server) == []


def test_a_table_name_too_long_for_any_table_is_not_cut_to_one_that_exists(host, refused):
    longest = Table("u" * 31, columns("a"))
    call = Call(f'tarn_memdb_delete("{"u" * 32},x")')
    server = refused(host(start=False, tables=[longest], calls={"never": call}))
    assert errors_of(server)[-1] == "Table not found\n"


def test_a_refused_first_format_of_clear_tbl_does_not_stop_the_start(host):
    server = host(tables=[USERS], calls={"clear": Call('tarn_memdb_clear_tbl("$nosuch(x)")')})
    assert errors_of(server) == ["Wrong format [$nosuch(x)]\n"]
    assert server.call("clear").rc == -1
    assert errors_of(server)[1:] == [
        "Could not print the formatted pv input\n",
        "Clear table failed!\n",
    ]


QUERY = '"users,$nosuch(x)|b|c"'
LATE = {
    "best_match": f'tarn_memdb_select_best_match({QUERY}, {AVPS}, "1")',
    "nl_best_match": f'tarn_memdb_nl_select_best_match({QUERY}, {AVPS}, "1")',
    "best_match_prefix": f'tarn_memdb_nl_select_best_match_prefix({QUERY}, {AVPS}, "1", "0")',
    "out_of_range": f'tarn_memdb_nl_select_field_out_of_range({QUERY}, {AVPS}, "1", "1", "9")',
    "within_the_range": (
        "tarn_memdb_nl_select_field_within_the_range" f'({QUERY}, {AVPS}, "1", "1", "9", "$var(n)")'
    ),
}


@pytest.mark.parametrize("call", LATE.values(), ids=LATE)
def test_a_refused_query_of_the_special_selects_fails_at_each_call_only(host, call):
    server = host(tables=[USERS], calls={"late": Call(call)})
    told = ["Wrong format [users,$nosuch(x)|b|c]\n"]
    assert errors_of(server) == told
    for _ in range(2):
        assert server.call("late").rc == -1
        told += ["could not print the formatted pv input\n", "SELECT failed!\n"]
        assert errors_of(server) == told


def test_a_refused_query_of_the_subnet_select_has_no_last_line(host):
    call = f'tarn_memdb_nl_select_subnetmask({QUERY}, {AVPS}, "a", "b", "c")'
    server = host(tables=[USERS], calls={"late": Call(call)})
    assert server.call("late").rc == -1
    assert errors_of(server) == [
        "Wrong format [users,$nosuch(x)|b|c]\n",
        "could not print the formatted pv input\n",
    ]


@pytest.mark.parametrize("flavour", ["", "nl_"])
def test_a_refused_query_of_the_port_pair_select_is_told_as_widened(host, flavour):
    call = (
        f'tarn_memdb_{flavour}select_by_port_type("external_port", "users,$nosuch(x)|b|c|", {AVPS})'
    )
    server = host(tables=[USERS], calls={"late": Call(call)})
    assert server.call("late").rc == -1
    assert errors_of(server) == [
        "Wrong format [users,$nosuch(x)|b|c|*|]\n",
        "Could not print the formatted pv input\n",
    ]


def test_a_start_refused_after_the_load_can_be_mended_and_keeps_its_rows(host, refused):
    """The rows of a server whose script was mistyped are there when the mistake is gone."""
    broken = {"select": Call(f'tarn_memdb_select("nowhere,*|*|*", {AVPS})')}
    server = refuse_with_files(host, refused, calls=broken)
    server.calls = {
        "select": Call(
            f'tarn_memdb_select("users,*|*|*", {AVPS})', show=("$avp(a)", "$(avp(a)[1])")
        )
    }
    server.start()
    assert server.call("select").values == ("alice", "bob")
