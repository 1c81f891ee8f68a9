"""Exact selects and writes with up to 1,000,000 rows in place, beside htable and SQLite."""

import host_sizes
from host_cases import FIELDS, group_of
from host_loops import Loop
from host_site import FIRST_KEY, FLAT_COLUMNS, hash_table, row, table_text, write_rows

COUNTS = (1000, 10000, 100000, 1000000)
# Keys that differ in their last characters, and keys that differ ahead of a common ending.
ENDINGS = {"plain": "", "common": "@sip.example.org"}
TITLES = {"plain": "plain keys", "common": "keys with a common ending"}
SQLITE_GOAL = 0.2
GOAL_COUNTS = (1000000,)
# Rows to a request: as many as are put in well before the phone repeats it.
FILL_STEP = 20000
PATIENCE = 120.0


def tables():
    return [(kind, count) for kind in ENDINGS for count in COUNTS]


class LargeStock:
    """Subscribers with either sort of keys."""

    modules = ("htable.so",)
    shared_mb = 6144
    private_mb = 32

    def tables(self):
        return [table_text(f"{kind}{count}", FLAT_COLUMNS, 2 * count) for kind, count in tables()]

    def write(self, where):
        for kind, count in tables():
            rows = (row(n) for n in range(count))
            ending = ENDINGS[kind]
            write_rows(
                where, f"{kind}{count}", ((one[0] + ending, *one[1:]) for one in rows)
            )

    def parameters(self, _):
        return [hash_table(f"{kind}{count}", len(FIELDS) * count) for kind, count in tables()]


def filler(kind, count):
    """Fills the hash table, an item for each value."""
    return Loop(
        f"fill_{kind}{count}",
        f"$sht({kind}{count}=>$var(k)::grp) = $var(g);\n"
        f"$sht({kind}{count}=>$var(k)::contact) = $var(c);\n"
        f'$sht({kind}{count}=>$var(k)::state) = "registered";',
        f"$var(n) = {FIRST_KEY} + $var(i);\n"
        f'$var(k) = "user" + $var(n) + "{ENDINGS[kind]}";\n'
        '$var(g) = "group" + ($var(n) mod 100);\n'
        '$var(c) = "sip:user" + $var(n) + "@10.0.0.1:5060";',
    )


def make_lite(kind, count):
    """The route that makes and fills a table of the in-memory database, which counts by itself. A
    repeated request finds it made."""
    name = f"{kind}{count}"
    rows = (
        f"with recursive c(n) as (select {FIRST_KEY} union all select n + 1 from c "
        f"where n < {FIRST_KEY + count - 1}) "
        f"select 'user' || n || '{ENDINGS[kind]}' as k, 'group' || (n % 100) as grp, "
        "'sip:user' || n || '@10.0.0.1:5060' as contact, 'registered' as state from c"
    )
    return [
        f'sql_query("lite", "create table if not exists {name} as {rows}");',
        f'sql_query("lite", "create index if not exists {name}_k on {name}(k)");',
        'sl_send_reply("200", "made");',
        "exit;",
    ]


def selects(kind, count):
    name = f"{kind}{count}"
    avps = "|".join(f"$avp({field})" for field in FIELDS)
    into = ";".join(f"$avp({field})" for field in FIELDS)
    query = f"select grp,contact,state from {name} where k="
    found = {"check": "$avp(contact)", "expected": lambda i: row(i * 617 % count)[2]}
    return group_of(
        f"Exact select of one row into 3 AVPs, {name}",
        f"s_{name}",
        f"$var(n) = {FIRST_KEY} + ($var(i) * 617) mod {count};\n"
        f'$var(k) = "user" + $var(n) + "{ENDINGS[kind]}";',
        [
            *(
                Loop(select, f'tarn_memdb_{select}("{name},$var(k)|*|*|*,1", "|{avps}");', **found)
                for select in ("select", "nl_select")
            ),
            Loop(
                "htable",
                "\n".join(f"$avp({field}) = $sht({name}=>$var(k)::{field});" for field in FIELDS),
                **found,
            ),
            Loop("sqlite", f"""sql_pvquery("lite", "{query}'$var(k)'", "{into}");""", **found),
        ],
    )


def writes(kind, count):
    name = f"{kind}{count}"
    return group_of(
        f"Insert and delete of one row, {name}",
        f"w_{name}",
        f'$var(n) = 2000000 + $var(i);\n$var(k) = "new" + $var(n) + "{ENDINGS[kind]}";',
        [
            Loop(
                "insert_delete",
                f'tarn_memdb_insert("{name},$var(k)|alpha|beta|gamma");\n'
                f'tarn_memdb_delete("{name},$var(k)|*|*|*");',
                after=f'tarn_memdb_row_count("{name}", "$avp(left)");',
                check="$avp(left)",
                expected=str(count),
            ),
            Loop(
                "htable",
                f'$sht({name}=>$var(k)) = "alpha|beta|gamma";\n$sht({name}=>$var(k)) = $null;',
                check=f"$sht({name}=>$var(k))",
                expected="<null>",
            ),
            Loop(
                "sqlite",
                f"sql_query(\"lite\", \"insert into {name} values"
                "('$var(k)','alpha','beta','gamma')\");\n"
                f"sql_query(\"lite\", \"delete from {name} where k='$var(k)'\");",
                after=f"""sql_pvquery("lite", "select count(*) from {name} where k='$var(k)'", """
                '"$avp(left)");',
                check="$avp(left)",
                expected="0",
            ),
        ],
    )


def ratios(own):
    return (
        (own, "htable", None, ()),
        (own, "sqlite", SQLITE_GOAL, GOAL_COUNTS),
    )


def fill(server, runner):
    for kind, count in tables():
        reply = runner.phone.request("OPTIONS", server.uri(f"lite_{kind}{count}"), timeout=PATIENCE)
        assert reply.status == 200
        for _ in range(0, count, FILL_STEP):
            runner.run(filler(kind, count), min(count, FILL_STEP))


def routes(groups):
    made = {f"lite_{kind}{count}": make_lite(kind, count) for kind, count in tables()}
    for loop in [filler(*table) for table in tables()]:
        made[loop.name] = loop.route()
    return made | {loop.name: loop.route() for group in groups for loop in group.loops}


def run(bench, allocator):
    works = {"Exact select of one row into 3 AVPs": (selects, "select")}
    works["Insert and delete of one row"] = (writes, "insert_delete")
    groups = {
        (title, kind): {count: make(kind, count) for count in COUNTS}
        for title, (make, _) in works.items()
        for kind in ENDINGS
    }
    all_routes = routes([group for some in groups.values() for group in some.values()])
    with bench.runner(all_routes, allocator, LargeStock()) as runner:
        fill(runner.server, runner)
        for (_, kind), some in groups.items():
            for count, group in some.items():
                for loop in group.loops:
                    if loop.name.startswith("nl_select"):
                        host_sizes.meet(runner, loop, count)
        for (title, kind), some in groups.items():
            nets = host_sizes.measured(bench, runner, some)
            host_sizes.print_times(f"{title}, {TITLES[kind]} (allocator {allocator})", nets)
            host_sizes.print_ratios(nets, ratios(works[title][1]))
