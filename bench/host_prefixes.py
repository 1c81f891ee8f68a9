"""The best match among up to 1,000,000 prefixes, beside mtree, and what a look-up for it adds to
the writes."""

import contextlib
import dataclasses
import functools
import sqlite3

import host_loops
import host_sizes
from host_cases import group_of
from host_loops import Loop
from host_site import table_text, tree, write_rows

COUNTS = (100, 1000, 10000, 100000, 1000000)
ROWS_OF_A_GROUP = 100
MATCH_GOAL = 2.0
WRITE_GOAL = 100  # nanoseconds
# The same formula in Python and in the script: numbers of eight digits all over a plan.
STEP, FIRST_NUMBER, NUMBERS = 61803399, 10000000, 90000000
NEAR = 9  # the place of a prefix of six digits, that all near numbers have
FUNCTIONS = ("select", "nl_select", "xavp_select", "nl_xavp_select")


@dataclasses.dataclass(frozen=True)
class Shape:
    """How a table holds its groups."""

    name: str  # of its tables, ahead of the number of rows
    title: str
    columns: tuple
    grouped: bool

    def query(self):
        return "$var(g)|$var(k)|*" if self.grouped else "$var(k)|*"

    def avps(self):
        return "||$avp(target)" if self.grouped else "|$avp(target)"

    def main(self):
        return 1 if self.grouped else 0

    def row(self, n, count):
        values = prefixes()[n], f"target{prefixes()[n]}"
        return (group(n, count), *values) if self.grouped else values


ENTRY_COLUMNS = ("prefix 15 0", "target 31 0")
SHAPES = (
    Shape("single", "without groups", ENTRY_COLUMNS, False),
    Shape("grouped", f"groups of {ROWS_OF_A_GROUP}", ("grp 15 0", *ENTRY_COLUMNS), True),
    Shape("keyed", f"indexed groups of {ROWS_OF_A_GROUP}", ("grp 15 1", *ENTRY_COLUMNS), True),
)
# Rows come and go by their ids, so that none is looked for by a walk.
WRITTEN_COLUMNS = ("id 15 1", *ENTRY_COLUMNS)
WRITTEN = {"written": "with a look-up", "bare": "without"}


def number(n):
    return str(FIRST_NUMBER + n * STEP % NUMBERS)


@functools.cache
def prefixes():
    """Different prefixes of 3 to 8 digits, the n-th of which begins the n-th number."""
    found = {}
    for n in range(max(COUNTS)):
        digits = number(n)
        length = 3 + n % 6
        while digits[:length] in found:
            length += 1
        found[digits[:length]] = n
    return list(found)


def groups(count):
    return max(count // ROWS_OF_A_GROUP, 1)


def group(n, count):
    return f"group{n % groups(count)}"


@functools.cache
def known(shape, count):
    """The prefixes of each group, or of None."""
    found = {}
    for n, text in enumerate(prefixes()[:count]):
        found.setdefault(group(n, count) if shape.grouped else None, set()).add(text)
    return found


@dataclasses.dataclass(frozen=True)
class Calls:
    """Which numbers are looked up one after the other."""

    name: str
    title: str
    # The number's place in a plan of so many prefixes, by the number of the repeat: here and in the
    # script.
    place: object
    script: str

    def each(self, count):
        return (
            f"$var(n) = {self.script.format(count=count)};\n"
            f'$var(g) = "group" + ($var(n) mod {groups(count)});\n'
            f"$var(n) = {FIRST_NUMBER} + ($var(n) * {STEP}) mod {NUMBERS};\n"
            # The digits behind them.
            '$var(k) = "" + $var(n) + (1000000 + $var(i));'
        )


NEAR_CALLS = Calls("near", "numbers of one prefix", lambda i, count: NEAR, str(NEAR))
APART_CALLS = Calls(
    "apart",
    "numbers all over the plan",
    lambda i, count: i * 617 % count,
    "($var(i) * 617) mod {count}",
)
CALLS = (NEAR_CALLS, APART_CALLS)


def expected(shape, count, n):
    """The target of the longest prefix of the n-th number."""
    of_group = known(shape, count)[group(n, count) if shape.grouped else None]
    called = number(n)
    return next(
        f"target{called[:length]}"
        for length in range(len(called), 0, -1)
        if called[:length] in of_group
    )


class PrefixStock:
    """Prefixes in tables of each shape and in trees, and tables to write to."""

    modules = ("mtree.so",)
    shared_mb = 4096
    # The tree's module takes its whole table as one result at the start.
    private_mb = 1024

    def __init__(self, counts=COUNTS):
        self.counts = counts

    def tables(self):
        return [
            table_text(f"{name}{count}", columns, 2 * count)
            for count in self.counts
            for name, columns in (
                *((shape.name, shape.columns) for shape in SHAPES),
                *((name, WRITTEN_COLUMNS) for name in WRITTEN),
            )
        ]

    def write(self, where):
        for count in self.counts:
            for shape in SHAPES:
                rows = (shape.row(n, count) for n in range(count))
                write_rows(where, f"{shape.name}{count}", rows)
            for name in WRITTEN:
                rows = ((f"{n}", *SHAPES[0].row(n, count)) for n in range(count))
                write_rows(where, f"{name}{count}", rows)
        with contextlib.closing(sqlite3.connect(where / "trees.db")) as trees:
            for count in self.counts:
                trees.execute(f"create table tree{count}(tprefix varchar(15), tvalue varchar(31))")
                trees.executemany(
                    f"insert into tree{count} values(?, ?)",
                    (SHAPES[0].row(n, count) for n in range(count)),
                )
            trees.execute("create table version(table_name varchar(31), table_version int)")
            trees.executemany(
                "insert into version values(?, 1)", [(f"tree{count}",) for count in self.counts]
            )
            trees.commit()

    def parameters(self, where):
        return [f'modparam("mtree", "db_url", "sqlite:///{where}/trees.db")'] + [
            tree(f"tree{count}") for count in self.counts
        ]


def match(shape, function, count, calls):
    is_xavp = "xavp" in function
    into = "to" if is_xavp else shape.avps()
    return Loop(
        f"{function}_{shape.name}",
        f"tarn_memdb_{function}_best_match"
        f'("{shape.name}{count},{shape.query()}", "{into}", "{shape.main()}");',
        check="$xavp(to=>target)" if is_xavp else "$avp(target)",
        expected=lambda i: expected(shape, count, calls.place(i, count)),
    )


def matches(count, calls):
    return group_of(
        f"Best match among {count} prefixes, {calls.title}",
        f"{calls.name}{count}",
        calls.each(count),
        [
            Loop(
                "mtree",
                f'mt_match("tree{count}", "$var(k)", "0");',
                check="$avp(s:tvalue)",
                expected=lambda i: expected(SHAPES[0], count, calls.place(i, count)),
            ),
            *(match(shape, function, count, calls) for shape in SHAPES for function in FUNCTIONS),
        ],
    )


def writes(count):
    def loop(name):
        # The select, which isn't timed, is what makes the look-up.
        query = f"written{count},*|{number(0)}|*"
        select = f'tarn_memdb_select_best_match("{query}", "|$avp(found)", "1");\n'
        return Loop(
            name,
            f'tarn_memdb_insert("{name}{count},$var(k)|$var(n)|target");\n'
            f'tarn_memdb_delete("{name}{count},$var(k)|*|*");',
            after=(select if name == "written" else "")
            + f'tarn_memdb_row_count("{name}{count}", "$avp(left)");',
            check="$avp(left)",
            expected=str(count),
        )

    return group_of(
        f"Insert and delete of a prefix, {count} rows in place",
        f"w{count}",
        f'$var(n) = {FIRST_NUMBER} + ($var(i) * {STEP} + 5) mod {NUMBERS};\n'
        '$var(k) = "new" + $var(i);',
        [loop(name) for name in WRITTEN],
    )


def print_writes(nets, allocator):
    host_sizes.print_times(f"Insert and delete of a prefix (allocator {allocator})", nets)
    dearer = {
        count: host_sizes.median(
            [(a - b) / 2 for a, b in zip(net["written"], net["bare"], strict=True)]
        )
        for count, net in nets.items()
    }
    host_loops.print_table(
        "Dearer for the look-up, each of both writes: ns",
        ["rows", *(str(count) for count in nets), "goal"],
        [["", *dearer.values(), host_sizes.verdict(dearer, WRITE_GOAL)]],
    )


def meet(runner, searched, written):
    for count in COUNTS:
        loops = {host_sizes.bare(loop.name): loop for loop in searched[count].loops}
        for name in ("mtree", *(f"nl_select_{shape.name}" for shape in SHAPES)):
            host_sizes.meet(runner, loops[name], count)
        for loop in written[count].loops[1:]:
            host_sizes.meet(runner, loop, min(count, 100000))


def run(bench, allocator):
    searched = {
        calls: {count: matches(count, calls) for count in COUNTS} for calls in CALLS
    }
    written = {count: writes(count) for count in COUNTS}
    routes = {
        loop.name: loop.route()
        for some in (*searched.values(), written)
        for group in some.values()
        for loop in group.loops
    }
    with bench.runner(routes, allocator, PrefixStock()) as runner:
        meet(runner, searched[APART_CALLS], written)
        for calls, some in searched.items():
            nets = host_sizes.measured(bench, runner, some)
            names = [name for name in host_sizes.names_of(nets) if name != "mtree"]
            title = f"Best match among so many prefixes, {calls.title} (allocator {allocator})"
            host_sizes.print_times(title, nets)
            host_sizes.print_ratios(nets, [(name, "mtree", MATCH_GOAL, COUNTS) for name in names])
        print_writes(host_sizes.measured(bench, runner, written), allocator)
