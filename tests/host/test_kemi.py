"""KSR.tarn_memdb in the other script languages: as the native functions, on the same tables."""

import dataclasses

import kemi_engines
import pytest
from module_host import MODULE_NAME, OTHER_MODULES, Call, Table, columns, hosts_of

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), max_rows=8)
PLANS = Table("plans", columns("grp", "prefix", "gateway"))
NETS = Table("nets", columns(*(f"c{i}" for i in range(16))))
DOMAINS = Table("remote_sub_dn_list", columns("dn", "domain"))
ROWS = {
    "users": ["alice|30|rome", "bob|31|rome", "carol|32|oslo", "d,e*f|33|bonn"],
    "plans": ["a|39|italy", "a|3906|lazio", "b||any"],
    "nets": ["|".join(["net", "", "west", "10.1.0.0", "255.255.0.0", *[""] * 8, "1", "", ""])],
    "remote_sub_dn_list": ["known|west"],
}
NET = "|".join("*" * 16)
AVPS = '"$avp(a)|$avp(b)|$avp(c)"'
ABC = ("$avp(a)", "$avp(b)", "$avp(c)")
TWO_OF_A = ("$avp(a)", "$(avp(a)[1])", "$(avp(a)[2])")
XAVP = ("$xavp(x=>name)", "$xavp(x=>age)", "$xavp(x=>city)")
PLAN = ("$xavp(x=>prefix)", "$xavp(x=>gateway)")


@dataclasses.dataclass(frozen=True)
class Case:
    """A function in both: its name, its parameters there and here, and what the script shows then.

    `result` is where the native function leaves what the other one gives; null is its return code.
    """

    function: str
    there: str
    here: str
    show: tuple = ()
    result: str = ""


def same(function, parameters, show=(), result=""):
    """A case whose parameters are texts; numbers stand without quotes here."""
    return Case(function, parameters.replace("'", '"'), parameters.replace("'", ""), show, result)


# In this order: what one changes the next ones see. A number that the native script writes as a
# text stands between single quotes.
CASES = {
    "insert": same("insert", '"users,dora|40|bern"'),
    "inserted": same("select", f'"users,dora|*|*", {AVPS}', ABC),
    "insert_wildcard": same("insert", '"users,eve|*|x"'),
    "insert_named": same("insert", '"users,eve|1"'),
    "update": same("update", '"users,dora|*|*", "*|41|"'),
    "update_miss": same("update", '"users,nobody|*|*", "*|1|*"'),
    "updated": same("select", f'"users,dora|*|*,1", {AVPS}', ABC),
    "delete": same("delete", '"users,dora|*|*"'),
    "delete_miss": same("delete", '"users,dora|*|*"'),
    "delete_limit": same("delete", '"users,bob|*|*,0"'),
    "select": same("select", '"users,*|*|rome", "$avp(a)"', TWO_OF_A),
    "select_miss": same("select", '"users,nobody|*|*", "$avp(a)"', ABC),
    "select_escaped": same("select", '"users,d\\\\,e*f|*|*", "||$avp(c)"', ABC),
    "select_no_evaluation": same("nl_select", '"users,*|*|*,2", "$avp(a)"', TWO_OF_A),
    "nl_select": same("nl_select", f'"users,bob|*|*", {AVPS}', ABC),
    "xavp_select": same("xavp_select", '"users,bob|*|*", "x"', XAVP),
    "nl_xavp_select": same("nl_xavp_select", '"users,carol|*|*", "x"', XAVP),
    "best_match": same("select_best_match", f"\"plans,a|390612|*\", {AVPS}, '1'", ABC),
    "best_match_miss": same("select_best_match", f"\"plans,a|44|*\", {AVPS}, '1'", ABC),
    "best_match_column": same("select_best_match", f"\"plans,a|44|*\", {AVPS}, '9'", ABC),
    "nl_best_match": same("nl_select_best_match", f"\"plans,b|44|*\", {AVPS}, '1'", ABC),
    "best_match_prefix": same(
        "nl_select_best_match_prefix", f"\"plans,a|3907|*\", {AVPS}, '1', '1'", ABC
    ),
    "xavp_best_match": same("xavp_select_best_match", "\"plans,a|391|*\", \"x\", '1'", PLAN),
    "nl_xavp_best_match": same("nl_xavp_select_best_match", "\"plans,b|1|*\", \"x\", '1'", PLAN),
    "out_of_range": same(
        "nl_select_field_out_of_range", f"\"users,*|*|*\", {AVPS}, '1', '31', '32'", TWO_OF_A
    ),
    "within_the_range": Case(
        "nl_select_field_within_the_range",
        '"users,*|*|*", "$avp(a)", "1", "30", "99", "$var(count)"',
        '"users,*|*|*", 1, 30',
        result="$var(count)",
    ),
    "by_subnet": same("nl_select_subnetmask", f'"nets,{NET}", {AVPS}, "10.1.2.3", "a", "b"', ABC),
    "by_no_subnet": same("nl_select_subnetmask", f'"nets,{NET}", {AVPS}, "8.8.8.8", "a", "b"', ABC),
    "row_count": Case("row_count", '"users", "$avp(n)"', '"users"', result="$avp(n)"),
    "get_port": same("get_port", '"INT"'),
    "get_port_word": same("get_port", '"int"'),
    "get_port_from_range": same("get_port_from_range", "\"INT\", '21200'"),
    "no_such_range": same("get_port_from_range", "\"INT\", '21100'"),
    "set_port": same("set_port", "'21001', \"INT\""),
    "get_port_behind_it": same("get_port", '"INT"'),
    "set_port_outside": same("set_port", "'80', \"INT\""),
    "free_port_outside": same("free_port", "\"INT\", '80'"),
    "clear_pmap": same("clear_pmap", ""),
    "get_port_once_more": same("get_port", '"INT"'),
    "clear_tbl": same("clear_tbl", '"users"'),
    "cleared": same("select", '"users,*|*|*", "$avp(a)"', ABC),
    "clear_unknown": same("clear_tbl", '"nowhere"'),
}
# What only makes sense here, with what it shows.
OWN_CASES = {
    "free_port": (
        ['KSR.tarn_memdb.set_port(21050, "INT")', 'KSR.tarn_memdb.free_port("INT", 21050)'],
        ("1", "1"),
    ),
    "not_evaluated": (
        [
            'KSR.tarn_memdb.insert("plans,$rU|$avp(x)|")',
            'KSR.tarn_memdb.select("plans,$rU|$avp(x)|*", "$avp(a)")',
            'KSR.pv.get("$avp(a)")',
        ],
        ("1", "1", "$rU"),
    ),
    "not_storable": (
        [
            'KSR.tarn_memdb.insert("plans,a\\\\|b|1|")',
            'KSR.tarn_memdb.update("plans,a|39|*", "#|*|*")',
        ],
        ("-1", "-1"),
    ),
}
TEXT_CASES = {
    "get": (['KSR.tarn_memdb.get("plans,a|39|*", 2)'], ("italy",)),
    "get_empty": (['KSR.tarn_memdb.get("plans,b|*|*", 1)'], ("",)),
    "get_nothing": (['KSR.tarn_memdb.get("plans,a|1|*", 2)'], (kemi_engines.NULL,)),
    "get_bad_column": (['KSR.tarn_memdb.get("plans,a|39|*", 3)'], (kemi_engines.NULL,)),
    "escape": (['KSR.tarn_memdb.escape("a|b,c*")'], ("a\\|b\\,c\\*",)),
}


def setup():
    return {
        "tables": [USERS, PLANS, NETS, DOMAINS],
        "ranges": "INT 21200 21201 21202\n",
    }


def start(host, **more):
    server = host(start=False, **setup(), **more)
    for table, rows in ROWS.items():
        server.write_rows(table, rows)
    return server.start()


@pytest.fixture(scope="module")
def natively(request):
    """What the native functions give and show, case by case."""
    calls = {}
    for name, case in CASES.items():
        shown = (case.result, *case.show) if case.result else case.show
        calls[name] = Call(f"tarn_memdb_{case.function}({case.there})", show=shown)
    with hosts_of(request.node) as make:
        server = start(make, calls=calls)
        found = {}
        with server.phone() as phone:
            for name, case in CASES.items():
                result = server.call(name, phone=phone)
                shown = result.values if case.result else (str(result.rc), *result.values)
                found[name] = tuple(kemi_engines.NULL if text is None else text for text in shown)
        yield found


class Scripted:
    """A server whose calls are the functions of a script in one of the languages."""

    def __init__(self, make, engine, path, functions, modules=None):
        self.engine = engine
        self.path = path
        self.write(functions)
        self.server = start(
            make,
            modules=modules or (*OTHER_MODULES, MODULE_NAME, f"{engine.module}.so"),
            modparams=[*engine.load(path), *RELOADABLE.get(engine.name, ())],
            calls={name: Call(engine.call(f"call_{name}")) for name in functions},
            # Each process has a machine of its own for the scripts.
            private_memory=8,
        )

    def write(self, functions):
        named = {f"call_{name}": lines for name, lines in functions.items()}
        self.path.write_text(self.engine.script(named))

    def shows(self, name, phone=None):
        """What the function's lines show."""
        values = self.server.call(name, phone=phone, timeout=20).values
        return tuple(kemi_engines.NULL if value is None else value for value in values)


def expressions(case):
    shown = [f'KSR.pv.get("{name}")' for name in case.show]
    return [f"KSR.tarn_memdb.{case.function}({case.here})", *shown]


# Parameters of a wrong kind, and too few; each a call that mustn't succeed.
WRONG_KINDS = (
    "insert(null)",
    'insert("")',
    "row_count(7)",
    "select(null, null)",
    'select("users,*|*|*", null)',
    'select("users,*|*|*", 7)',
    'select_best_match("plans,a|39|*", "$avp(a)", "9")',
    'nl_select_field_out_of_range("users,*|*|*", "$avp(a)", null, "9", -1)',
    "get_port(null)",
    'set_port(null, "INT")',
    'set_port("x", "INT")',
    "get(null, null)",
)
# What becomes of a null where a text is wanted and where a number is, of a number as text, of a
# text as number, and of a text with a zero byte.
OTHER_KINDS = (
    "escape(null)",
    'set_port(null, "INT")',
    "escape(7)",
    'set_port("21060", "INT")',
    'row_count("nets\\0x")',
)
AS_OTHER_KINDS = {
    "lua": ("", "-2", "7", "1", "-1"),
    "python": ("false", "false", "false", "false", "-1"),
    "javascript": ("null", "-2", "7", "1", "1"),
    "ruby": ("false", "false", "false", "false", "1"),
}
RELOADABLE = {"lua": ['modparam("app_lua", "reload", 1)']}
TURNS = 10000  # of ten calls


def many_calls(engine):
    """Ten calls by which rows come and go, each turn with a new list of names."""
    calls = [
        f"insert({engine.join('plans,m', 'i', '|1|x')})",
        f"update({engine.join('plans,m', 'i', '|*|*')}, \"*|2|*\")",
        f"delete({engine.join('plans,m', 'i', '|*|*')})",
        f"select(\"users,nobody|*|*\", {engine.join('$avp(l', '(i + 10000)', ')|$avp(b)')})",
        'select("users,alice|*|*", "$avp(a)")',
        'xavp_select("users,nobody|*|*", "x")',
        'select_best_match("plans,a|4|*", "$avp(a)", 1)',
        'get("users,alice|*|*", 1)',
        'escape("a|b")',
        'row_count("users")',
    ]
    return [engine.line(f"KSR.tarn_memdb.{call}") for call in calls]


def loop_of(engine, turns):
    """The lines of a loop of such calls, which show in the end that they were reached."""
    end = engine.shown('KSR.tarn_memdb.row_count("nets")')
    return [*engine.repeated(turns, many_calls(engine)), end]


def functions_of(engine):
    """The lines of each function of the script."""
    shown = {name: expressions(case) for name, case in CASES.items()}
    shown |= {name: lines for name, (lines, _) in {**OWN_CASES, **TEXT_CASES}.items()}
    shown["rows"] = ['KSR.tarn_memdb.row_count("users")', 'KSR.tarn_memdb.row_count("plans")']
    for name, calls in (("wrong", WRONG_KINDS), ("other", OTHER_KINDS)):
        shown[name] = [f"KSR.tarn_memdb.{call.replace('null', engine.null)}" for call in calls]
    lines = {name: [engine.shown(text) for text in texts] for name, texts in shown.items()}
    lines["many"] = loop_of(engine, TURNS)
    lines["few"] = loop_of(engine, 200)
    return lines


@pytest.fixture(
    scope="module", params=kemi_engines.engines_there(), ids=lambda engine: engine.name
)
def scripted(request, tmp_path_factory):
    engine = request.param
    path = tmp_path_factory.mktemp(engine.name) / f"calls.{engine.suffix}"
    with hosts_of(request.node) as make:
        yield Scripted(make, engine, path, functions_of(engine))


def test_each_function_does_what_the_native_one_does(scripted, natively):
    with scripted.server.phone() as phone:
        found = {name: scripted.shows(name, phone) for name in CASES}
    assert found == natively


@pytest.mark.parametrize("name", OWN_CASES)
def test_a_function_does_what_is_its_own_here(scripted, name):
    assert scripted.shows(name) == OWN_CASES[name][1]


@pytest.mark.parametrize("name", TEXT_CASES)
def test_a_text_comes_back_where_the_language_takes_texts(scripted, name):
    lines, texts = TEXT_CASES[name]
    if not scripted.engine.gives_texts:
        texts = (kemi_engines.NULL,) * len(lines)
    assert scripted.shows(name) == texts


def test_parameters_of_a_wrong_kind_fail_the_call_alone(scripted):
    before = scripted.shows("rows")
    shown = scripted.shows("wrong")
    assert len(shown) == len(WRONG_KINDS)
    assert set(shown) <= {"-1", "-2", "false", kemi_engines.NULL}
    assert scripted.shows("rows") == before


def test_a_language_makes_of_another_kind_what_is_told_of_it(scripted):
    assert scripted.shows("other") == AS_OTHER_KINDS[scripted.engine.name]


def test_memory_is_flat_after_a_hundred_thousand_calls(scripted):
    server = scripted.server
    scripted.shows("few")
    private, shared = server.private_memory_used(), server.shared_memory_used()
    assert scripted.shows("many") == ("1",)
    # What a block is larger than asked for changes with its place. A lost block in each turn would
    # come to far more.
    assert abs(server.private_memory_used() - private) < TURNS
    assert server.shared_memory_used() == shared


def test_a_script_that_is_loaded_again_has_the_functions(scripted):
    engine = scripted.engine
    functions = functions_of(engine)
    functions["rows"] = [engine.shown('KSR.tarn_memdb.row_count("nets")')]
    scripted.write(functions)
    assert "error" not in scripted.server.jsonrpc(engine.reload)
    assert scripted.shows("rows") == ("1",)


@pytest.mark.parametrize(
    "engine", kemi_engines.engines_there(), ids=lambda engine: engine.name
)
def test_only_python_needs_the_module_ahead_of_it(host, tmp_path, engine):
    call = 'KSR.tarn_memdb.row_count("nets")'
    shown = call if engine.name != "python" else "hasattr(KSR, 'tarn_memdb')"
    scripted = Scripted(
        host,
        engine,
        tmp_path / f"calls.{engine.suffix}",
        {"rows": [engine.shown(shown)]},
        (*OTHER_MODULES, f"{engine.module}.so", MODULE_NAME),
    )
    assert scripted.shows("rows") == (("false",) if engine.name == "python" else ("1",))
