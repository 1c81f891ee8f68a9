"""The loops, case by case: what the module does, and the same by its peers."""

import dataclasses

from host_loops import EMPTY, Loop
from host_site import FIRST_KEY, ROW_COUNTS, WRITE_ROWS, prefixes, row

FIELDS = ("grp", "contact", "state")
NUMBER = "49301"  # what the numbers that are looked up begin with


@dataclasses.dataclass(frozen=True)
class Group:
    """Loops that are run in turn. The first one is the empty one."""

    title: str
    loops: tuple
    # Whose time is divided by whose, and the most that this should give if there is a goal.
    ratios: tuple = ()


def group_of(title, tag, each, loops, ratios=()):
    """A group whose loops share their preparation; names are made unlike other groups' by a tag."""
    named = [Loop(EMPTY, "", each)] + loops
    return Group(
        title,
        tuple(
            dataclasses.replace(loop, name=f"{loop.name}__{tag}", each=each) for loop in named
        ),
        tuple((f"{own}__{tag}", f"{peer}__{tag}", goal) for own, peer, goal in ratios),
    )


# Filling of the peers that have no files: 1,000 rows to a request.

FILL_STEP = 1000


def fillers():
    """Loops that fill hash tables and the in-memory database, with the number of rows for each."""
    each = (
        f"$var(n) = {FIRST_KEY} + $var(i);\n"
        '$var(k) = "user" + $var(n);\n'
        '$var(g) = "group" + ($var(n) mod 100);\n'
        '$var(c) = "sip:" + $var(k) + "@10.0.0.1:5060";'
    )
    loops = []
    for count in ROW_COUNTS:
        loops.append(
            (
                Loop(
                    f"fill_flat{count}",
                    f'$sht(flat{count}_grp=>$var(k)) = $var(g);\n'
                    f'$sht(flat{count}_contact=>$var(k)) = $var(c);\n'
                    f'$sht(flat{count}_state=>$var(k)) = "registered";\n'
                    f'$sht(flat{count}=>$var(k)::grp) = $var(g);\n'
                    f'$sht(flat{count}=>$var(k)::contact) = $var(c);\n'
                    f'$sht(flat{count}=>$var(k)::state) = "registered";\n'
                    f'sql_query("lite", "insert into flat{count} values'
                    "('$var(k)','$var(g)','$var(c)','registered')\");",
                    each,
                ),
                count,
            )
        )
    loops.append(
        (
            Loop(
                "fill_write",
                '$sht(write=>$var(k)) = "alpha|beta|gamma";\n'
                "sql_query(\"lite\", \"insert into twrite values"
                "('$var(k)','$var(g)','x','y')\");",
                each,
            ),
            WRITE_ROWS,
        )
    )
    return loops


def make_lite():
    """The route that makes the in-memory database's tables."""
    lines = []
    for table in [f"flat{count}" for count in ROW_COUNTS] + ["twrite"]:
        for sql in (
            f"create table if not exists {table}(k text, grp text, contact text, state text)",
            f"create index if not exists {table}_k on {table}(k)",
        ):
            lines.append(f'sql_query("lite", "{sql}");')
    return lines + ['sl_send_reply("200", "made");', "exit;"]


# Case 1: the exact select of one row into three AVPs.


def _keys(count):
    """Sets $var(k) to the keys of `count` rows in an order that no table follows."""
    return (
        f"$var(n) = {FIRST_KEY} + ($var(i) * 617) mod {count};\n"
        '$var(k) = "user" + $var(n);'
    )


def _contact(count):
    return {
        "check": "$avp(contact)",
        "expected": lambda i: row(i * 617 % count)[2],
    }


def selects(count):
    avps = "|".join(f"$avp({field})" for field in FIELDS)
    query = f"select grp,contact,state from flat{count} where k="
    into = ";".join(f"$avp({field})" for field in FIELDS)
    found = _contact(count)
    reads = {
        "htable": "{table}_{field}=>$var(k)",
        "htable_one": "{table}=>$var(k)::{field}",
    }
    return group_of(
        f"Exact select of one row into 3 AVPs, {count} rows",
        f"s{count}",
        _keys(count),
        [
            Loop(
                "select",
                f'tarn_memdb_select("flat{count},$var(k)|*|*|*,1", "|{avps}");',
                **found,
            ),
            Loop(
                "nl_select",
                f'tarn_memdb_nl_select("flat{count},$var(k)|*|*|*,1", "|{avps}");',
                **found,
            ),
            Loop(
                "xavp_select",
                f'tarn_memdb_xavp_select("flat{count},$var(k)|*|*|*,1", "row");',
                check="$xavp(row=>contact)",
                expected=found["expected"],
            ),
            *(
                Loop(
                    name,
                    "\n".join(
                        f"$avp({field}) = $sht({place.format(table=f'flat{count}', field=field)});"
                        for field in FIELDS
                    ),
                    **found,
                )
                for name, place in reads.items()
            ),
            Loop("sqlite", f"""sql_pvquery("lite", "{query}'$var(k)'", "{into}");""", **found),
            # This one knows double quotes only.
            Loop("db_text", f"""sql_pvquery("text", '{query}"$var(k)"', "{into}");""", **found),
        ],
        (
            ("select", "htable", 1.0 if count <= 1000 else None),
            ("select", "htable_one", None),
            ("nl_select", "htable", None),
            ("select", "sqlite", 0.1),
            ("select", "db_text", 0.1),
        ),
    )


# Case 2: a row put in and taken out.


def _new_keys():
    return '$var(n) = 2000000 + $var(i);\n$var(k) = "new" + $var(n);'


def _left_in(table):
    return {
        "after": f'tarn_memdb_row_count("{table}", "$avp(left)");',
        "check": "$avp(left)",
        "expected": str(WRITE_ROWS if table == "write" else 0),
    }


def writes():
    return group_of(
        f"Insert and delete of one row, {WRITE_ROWS} rows in place",
        "w",
        _new_keys(),
        [
            Loop(
                "insert_delete",
                'tarn_memdb_insert("write,$var(k)|alpha|beta|gamma");\n'
                'tarn_memdb_delete("write,$var(k)|*|*|*");',
                **_left_in("write"),
            ),
            Loop(
                "htable",
                '$sht(write=>$var(k)) = "alpha|beta|gamma";\n$sht(write=>$var(k)) = $null;',
                check="$sht(write=>$var(k))",
                expected="<null>",
            ),
            # As many values as the row has beside its key.
            Loop(
                "htable_three",
                "\n".join(
                    f'$sht(write=>$var(k)::{field}) = "{text}";'
                    for field, text in zip(FIELDS, ("alpha", "beta", "gamma"), strict=True)
                )
                + "\n"
                + "\n".join(f"$sht(write=>$var(k)::{field}) = $null;" for field in FIELDS),
                check="$sht(write=>$var(k)::state)",
                expected="<null>",
            ),
            Loop(
                "sqlite",
                "sql_query(\"lite\", \"insert into twrite values"
                "('$var(k)','alpha','beta','gamma')\");\n"
                "sql_query(\"lite\", \"delete from twrite where k='$var(k)'\");",
                after='sql_pvquery("lite", "select count(*) from twrite", "$avp(left)");',
                check="$avp(left)",
                expected=str(WRITE_ROWS),
            ),
        ],
        (
            ("insert_delete", "htable", 2.0),
            ("insert_delete", "htable_three", None),
            ("insert_delete", "sqlite", 0.1),
        ),
    )


# Case 3: the longest prefix.


def best_matches(count):
    known = set(prefixes(count))

    def expected(i):
        number = f"{NUMBER}{10000000 + i % 1000000}"
        return next(
            f"target{number[:length]}"
            for length in range(len(number), 0, -1)
            if number[:length] in known
        )

    target = {"check": "$avp(target)", "expected": expected}
    query = f'"prefix{count},$var(k)|*", "|$avp(target)", "0"'
    return group_of(
        f"Best match among {count} prefixes",
        f"b{count}",
        f'$var(n) = 10000000 + $var(i) mod 1000000;\n$var(k) = "{NUMBER}" + $var(n);',
        [
            Loop("best_match", f"tarn_memdb_select_best_match({query});", **target),
            Loop("nl_best_match", f"tarn_memdb_nl_select_best_match({query});", **target),
            Loop(
                "mtree",
                f'mt_match("tree{count}", "$var(k)", "0");',
                check="$avp(s:tvalue)",
                expected=expected,
            ),
        ],
        (("best_match", "mtree", 2.0), ("nl_best_match", "mtree", 2.0)),
    )


# Case 4: ports, and the statements beside their positional twins.


def ports():
    # A row of a table that holds ports takes its port and gives it back; the same row of a table
    # that holds none shows what that costs.
    values = "$var(k)|$var(k)|alice|bob|$var(p)|WAN||0|0"
    rows = [
        Loop(
            f"row_in_{table}",
            f'tarn_memdb_insert("{table},{values}");\n'
            f'tarn_memdb_delete("{table},$var(k)|*|*|*|*|*|*|*|*");',
            **_left_in(table),
        )
        for table in ("media", "calls")
    ]
    freed = {"after": "tarn_memdb_clear_pmap();"}
    return group_of(
        "Ports",
        "p",
        '$var(k) = 2000000 + $var(i);\n$var(p) = 1024 + $var(i) mod 60000;',
        [
            Loop("get_port", 'tarn_memdb_get_port("EXT");', **freed),
            Loop(
                "get_port_into_avp",
                'tarn_memdb_get_port("EXT", "$avp(port)");',
                **freed,
            ),
            Loop("set_port", 'tarn_memdb_set_port("$var(p)", "EXT");', **freed),
            *rows,
        ],
        (("row_in_media", "row_in_calls", None),),
    )


def statements():
    found = _contact(1000)
    where = "WHERE key=$var(k) MAX=1"
    return [
        group_of(
            "SELECT statement and tarn_memdb_select, 1000 rows",
            "qs",
            _keys(1000),
            [
                Loop(
                    "statement",
                    f'sqll_tarn_memdb_select("SELECT grp,contact,state FROM flat1000 {where}", '
                    '"$avp(grp);$avp(contact);$avp(state)");',
                    **found,
                ),
                Loop(
                    "positional",
                    'tarn_memdb_select("flat1000,$var(k)|*|*|*,1", '
                    '"|$avp(grp)|$avp(contact)|$avp(state)");',
                    **found,
                ),
            ],
            (("statement", "positional", 1.6),),
        ),
        group_of(
            "UPDATE statement and tarn_memdb_update, 1000 rows",
            "qu",
            _keys(1000),
            [
                Loop(
                    "statement",
                    f'sqll_tarn_memdb_update("UPDATE flat1000 SET state=away {where}");',
                ),
                Loop(
                    "positional",
                    'tarn_memdb_update("flat1000,$var(k)|*|*|*,1", "*|*|*|away");',
                ),
            ],
            (("statement", "positional", 1.6),),
        ),
        group_of(
            "INSERT and DELETE statements and their twins, 1000 rows in place",
            "qw",
            _new_keys(),
            [
                Loop(
                    "statement",
                    'sqll_tarn_memdb_insert("INSERT INTO write key,grp,contact VALUES '
                    '$var(k),alpha,beta");\n'
                    'sqll_tarn_memdb_delete("DELETE FROM write WHERE key=$var(k)");',
                    **_left_in("write"),
                ),
                Loop(
                    "positional",
                    'tarn_memdb_insert("write,$var(k)|alpha|beta|");\n'
                    'tarn_memdb_delete("write,$var(k)|*|*|*");',
                    **_left_in("write"),
                ),
            ],
            (("statement", "positional", 1.6),),
        ),
    ]


def all_groups():
    return [
        *(selects(count) for count in ROW_COUNTS),
        writes(),
        *(best_matches(count) for count in ROW_COUNTS),
        ports(),
        *statements(),
    ]
