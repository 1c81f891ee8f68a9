"""Parameters that the server has only at the call: expressions, and Lua's KSR.x.modf.

The server lets the four XAVP selects be called so. It then prepares each parameter in the worker,
with whatever text a caller may have sent, and clears it away when the call is over.
"""

import kemi_engines
import pytest
from module_host import MODULE_NAME, OTHER_MODULES, Call, Table, columns

USERS = Table("users", columns("name", "age", "city"))
ROWS = ["rome|0|zero", "alice|30|rome", "bob|31|oslo"]
AGENT = "users,alice|*|*"  # what an evaluated $ua would make of a query

REFUSAL = (
    "The query of an XAVP select can't be an expression or come by KSR.x.modf: "
    'write it as one text with pseudo-variables in it, as in "users,$hdr(X-Q)"\n'
)
REFUSED = [REFUSAL, "could not print the formatted pv input\n", "SELECT failed!\n"]

SELECTS = ("tarn_memdb_xavp_select", "tarn_memdb_nl_xavp_select")
BEST_MATCHES = ("tarn_memdb_xavp_select_best_match", "tarn_memdb_nl_xavp_select_best_match")
ALL_FOUR = {**dict.fromkeys(SELECTS, ""), **dict.fromkeys(BEST_MATCHES, ', "2"')}

# What a caller may put behind a text: nothing, and what the server would evaluate.
TAILS = ("", "$ua", "$rU", "$(hdr(X-Agent))", "$nosuch(x)")


@pytest.fixture
def started(host):
    def start(calls, **setup):
        server = host(start=False, tables=[USERS], calls=calls, **setup)
        server.write_rows("users", ROWS)
        return server.start()

    return start


def all_four(first, second='"row"'):
    """A route that calls the four selects one after the other and shows what each gave."""
    calls = [f"{name}({first}, {second}{last})" for name, last in ALL_FOUR.items()]
    before = "".join(f"{call}; $var(rc{i}) = $rc;\n" for i, call in enumerate(calls[:-1]))
    return Call(calls[-1], before, ("$var(rc0)", "$var(rc1)", "$var(rc2)", "$cnt($xavp(row))"))


def sweep(server, calls, lengths, tails=TAILS, head=""):
    """Sends each call a header of every length, with every tail, and gives all results."""
    results = set()
    with server.phone() as phone:
        for length in lengths:
            for tail in tails:
                sent = {"User-Agent": AGENT, "X-Agent": AGENT, "X-Q": head + "x" * length + tail}
                for call in calls:
                    results.add(server.call(call, headers=sent, phone=phone))
    return results


def expect_nothing_kept(server, work):
    """Does the work twice: the first time may fill the server's own caches."""
    work()
    before = server.private_memory_used()
    work()
    assert server.private_memory_used() == before


def test_a_query_by_an_expression_is_refused_whatever_the_caller_sends(started):
    server = started(
        {"text": all_four('"users," + $hdr(X-Q)'), "named": all_four('"users,name=" + $hdr(X-Q)')}
    )
    (result,) = sweep(server, ("text", "named"), range(1, 301))
    assert (result.rc, result.values) == (-1, ("-1", "-1", "-1", "0"))
    assert server.said("ERROR") == REFUSED * (300 * len(TAILS) * 2 * 4)
    # Nobody looked at what was sent: no table, no list, no pseudo-variable.
    assert server.said("WARNING", "NOTICE", "CRITICAL") == []
    assert server.running


def test_a_refused_query_leaves_no_private_memory_behind(started):
    server = started(
        {"text": all_four('"users," + $hdr(X-Q)'), "named": all_four('"users,name=" + $hdr(X-Q)')}
    )
    lengths = (1, 26, 51, 57, 58, 64, 122, 128, 250, 256)
    expect_nothing_kept(server, lambda: sweep(server, ("text", "named"), lengths))


def test_a_query_that_is_one_pseudo_variable_without_quotes_is_an_expression_too(started):
    server = started({"bare": all_four("$hdr(X-Q)")})
    (result,) = sweep(server, ["bare"], [1], tails=[""], head=AGENT)
    assert (result.rc, result.values) == (-1, ("-1", "-1", "-1", "0"))
    assert server.said("ERROR") == REFUSED * 4


def test_an_expression_without_pseudo_variables_is_a_text_by_the_start(started):
    call = Call(
        'tarn_memdb_xavp_select("users," + "alice|*" + "|*", "r" + "ow")',
        show=("$xavp(row=>city)",),
    )
    server = started({"constant": call})
    assert server.call("constant") == server.call("constant")
    assert server.call("constant").values == ("rome",)
    assert server.said("ERROR") == []


def test_a_route_that_another_module_runs_before_our_first_process_starts(host):
    """htable runs its event route in its own child_init, which comes first if it's loaded first."""
    script = f"""
        request_route {{ sl_send_reply("200", "ready"); }}
        event_route[htable:mod-init] {{
            $var(q) = "{"x" * 58}$ua$ua|*|*";
            tarn_memdb_xavp_select("users," + $var(q), "row");
        }}
    """
    server = host(
        tables=[USERS],
        script=script,
        modules=OTHER_MODULES + ("htable.so", MODULE_NAME),
        modparams=['modparam("htable", "htable", "a=>size=4;")'],
    )
    assert server.said("ERROR") == REFUSED


def test_an_expression_names_the_xavp_and_is_taken_as_it_stands(started):
    shown = ("$xavp(row=>city)", "$cnt($xavp(row))")
    name = Call('tarn_memdb_xavp_select("users,alice|*|*", $hdr(X-Q))', show=shown)
    best = Call(
        'tarn_memdb_nl_xavp_select_best_match("users,*|*|romeo", "r" + $hdr(X-Q), "2")', show=shown
    )
    server = started({"plain": name, "best": best})
    agent = {"User-Agent": "row", "X-Agent": "row"}
    assert server.call("plain", "row", headers=agent).values == ("rome", "1")
    assert server.call("best", "ow", headers=agent).values == ("rome", "1")
    # An XAVP of that very name, and none of the name that the pseudo-variable has as its value.
    for sent in ("$ua", "$hdr(X-Agent)", "$(ua)"):
        result = server.call("plain", sent, headers=agent)
        assert (result.rc, result.values) == (1, (None, "0"))
    assert server.said("ERROR") == []


def test_a_name_by_an_expression_leaves_no_private_memory_behind(started):
    server = started(
        {
            "plain": Call('tarn_memdb_xavp_select("users,alice|*|*", $hdr(X-Q))'),
            "best": Call('tarn_memdb_xavp_select_best_match("users,*|*|x", $hdr(X-Q), "2")'),
        }
    )
    expect_nothing_kept(
        server, lambda: sweep(server, ("plain", "best"), (1, 32, 64, 128, 256), head="n")
    )


def test_a_column_by_an_expression_is_read_and_a_bad_one_refused(started):
    call = Call(
        'tarn_memdb_xavp_select_best_match("users,*|*|romeo", "row", $hdr(X-Q))',
        show=("$xavp(row=>name)",),
    )
    server = started({"column": call})
    assert server.call("column", "2").values == ("alice",)
    before = server.private_memory_used()
    bad = "memdb_select_best_match: main column ({}) is greater than total coumns (3)\n"
    for sent, column in (("-1", -1), ("3", 3), ("-2x", -2)):
        assert server.call("column", sent).rc == -1
        assert server.said("ERROR")[-1] == bad.format(column)
    assert server.private_memory_used() == before


# Lua


needs_lua = pytest.mark.skipif(
    not kemi_engines.is_there(kemi_engines.LUA), reason="the server has no app_lua.so"
)

LUA = """
local function query()
    return "users," .. KSR.hdr.get("X-Q")
end

function refuse()
    local one = KSR.x.modf("tarn_memdb_xavp_select", query(), "row")
    local two = KSR.x.modf("tarn_memdb_nl_xavp_select", query(), "row")
    local three = KSR.x.modf("tarn_memdb_xavp_select_best_match", query(), "row", "2")
    local four = KSR.x.modf("tarn_memdb_nl_xavp_select_best_match", query(), "$ua", "-1")
    KSR.pv.sets("$avp(codes)", one .. " " .. two .. " " .. three .. " " .. four)
end
"""


@pytest.fixture
def with_lua(started, tmp_path):
    def start(calls):
        script = tmp_path / "calls.lua"
        script.write_text(LUA)
        return started(
            calls,
            modules=OTHER_MODULES + ("app_lua.so", MODULE_NAME),
            modparams=[f'modparam("app_lua", "load", "{script}")'],
        )

    return start


MODF = {"modf": Call('lua_run("refuse")', show=("$avp(codes)", "$cnt($xavp(row))"))}


@needs_lua
def test_a_query_from_lua_is_refused_whatever_the_caller_sends(with_lua):
    server = with_lua(MODF)
    heads = ("", "alice|*|*", "name=")
    for head in heads:
        (result,) = sweep(server, ["modf"], range(1, 301, 1 if head else 3), head=head)
        assert result.values == ("-1 -1 -1 -1", "0")
    assert server.said("ERROR") == REFUSED * (4 * len(TAILS) * (300 + 300 + 100))
    assert server.running


@needs_lua
def test_a_refusal_from_lua_leaves_no_private_memory_behind(with_lua):
    server = with_lua(MODF)
    expect_nothing_kept(
        server,
        lambda: [
            sweep(server, ["modf"], (1, 51, 57, 64, 128, 256), head=head)
            for head in ("", "alice|*|*", "name=")
        ],
    )
