"""In which routes of a script the functions may stand: in every one but onsend_route."""

import pytest
from module_host import OTHER_MODULES, Table, columns

USERS = Table("users", columns(*(f"c{i}" for i in range(16))))
Q = '"users,' + "|".join("*" * 16) + '"'
A = '"$avp(a)"'
FUNCTIONS = [
    "tarn_memdb_clear_pmap()",
    'tarn_memdb_clear_tbl("users")',
    f"tarn_memdb_insert({Q})",
    f"tarn_memdb_delete({Q})",
    f"tarn_memdb_select({Q}, {A})",
    f'tarn_memdb_select_best_match({Q}, {A}, "1")',
    f'tarn_memdb_select_by_port_type("external_port", {Q}, {A})',
    f"tarn_memdb_nl_select({Q}, {A})",
    f'tarn_memdb_nl_select_best_match({Q}, {A}, "1")',
    f'tarn_memdb_nl_select_by_port_type("external_port", {Q}, {A})',
    f'tarn_memdb_update({Q}, "c1=x")',
    f'tarn_memdb_row_count("users", {A})',
    f'sqll_tarn_memdb_select("SELECT c1 FROM users WHERE c2=x", {A})',
    'sqll_tarn_memdb_delete("DELETE FROM users WHERE c2=x")',
    'sqll_tarn_memdb_insert("INSERT INTO users c1 VALUES x")',
    'sqll_tarn_memdb_update("UPDATE users SET c1=x WHERE c2=x")',
    f'tarn_memdb_get_port("INT", {A})',
    'tarn_memdb_get_port("INT")',
    'tarn_memdb_get_port_from_range("INT", "1")',
    'tarn_memdb_set_port("1", "INT")',
    'tarn_memdb_free_port("INT", "1")',
    f'tarn_memdb_nl_select_best_match_prefix({Q}, {A}, "1", "1")',
    f'tarn_memdb_nl_select_field_out_of_range({Q}, {A}, "1", "1", "1")',
    f'tarn_memdb_nl_select_field_within_the_range({Q}, {A}, "1", "1", "1", "$var(n)")',
    f'tarn_memdb_nl_select_subnetmask({Q}, {A}, "a", "b", "c")',
    f'tarn_memdb_xavp_select({Q}, "x")',
    f'tarn_memdb_nl_xavp_select({Q}, "x")',
    f'tarn_memdb_xavp_select_best_match({Q}, "x", "1")',
    f'tarn_memdb_nl_xavp_select_best_match({Q}, "x", "1")',
]
READY = 'request_route { sl_send_reply("200", "ready"); }\n'
ROUTES = [
    "route[any]",
    "failure_route[any]",
    "onreply_route[any]",
    "branch_route[any]",
    "event_route[tm:local-request]",
    "reply_route",
]
# With the transactions that most of these routes belong to.
MODULES = ("tm.so", *OTHER_MODULES, "tarn_memdb")


def script(route, functions):
    calls = "".join(f"  {function};\n" for function in functions)
    return f"{READY}{route} {{\n{calls}}}\n"


def test_there_is_a_call_of_every_function():
    assert len(FUNCTIONS) == len(set(FUNCTIONS)) == 29


@pytest.mark.parametrize("route", ROUTES)
def test_every_function_may_stand_in_a_route(host, route):
    server = host(tables=[USERS], modules=MODULES, script=script(route, FUNCTIONS))
    assert server.said("ERROR", "CRITICAL") == []


@pytest.mark.parametrize("function", FUNCTIONS, ids=lambda call: call.split("(")[0])
def test_no_function_may_stand_in_onsend_route(refused, function):
    server = refused(tables=[USERS], modules=MODULES, script=script("onsend_route", [function]))
    assert "cannot be used" in server.log()


@pytest.mark.parametrize(
    "call",
    [
        'tarn_memdb_select("users,*")',
        f'tarn_memdb_select({Q}, {A}, "1")',
        'tarn_memdb_clear_pmap("INT")',
        "tarn_memdb_get_port()",
        'tarn_memdb_get_port("INT", "$avp(a)", "x")',
        f'tarn_memdb_nl_select_best_match_prefix({Q}, {A}, "1")',
        'sqll_tarn_memdb_insert("INSERT INTO users c1 VALUES x", "$avp(a)")',
    ],
)
def test_a_call_with_another_number_of_parameters_is_refused(refused, call):
    refused(tables=[USERS], modules=MODULES, script=script("route[any]", [call]))
