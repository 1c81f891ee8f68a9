"""Calls from the other script languages beside the same from the server's own."""

import dataclasses
import statistics

import host_loops
from host_cases import NUMBER
from host_loops import Loop
from host_site import FIRST_KEY, FLAT_COLUMNS, prefixes, row, table_text, write_rows
from kemi_engines import engines_there

ROWS = 1000
# So that each loop makes 100,000 calls where MOST_REPEATS make a round.
ROUNDS = 250
GOAL = 1.5
NATIVE = "native"
OWN = "tarn_memdb"


@dataclasses.dataclass(frozen=True)
class Keys:
    """The key of each repeat: a text and a number behind it that the number of the repeat makes."""

    text: str
    number: str
    least: int  # of the numbers

    def native(self):
        number = self.number.format("$var(i)", "mod")
        return f'$var(n) = {number};\n$var(k) = "{self.text}" + $var(n);'

    def kemi(self, engine):
        number = f"({self.number.format('(first + i)', '%')})"
        return f"{engine.declares}k = {engine.join(self.text, number)}"

    @property
    def first(self):
        return f"{self.text}{self.least}"


@dataclasses.dataclass(frozen=True)
class Case:
    """A function and what it is given: the parts of the query ahead of a key and behind it, and the
    other parameters in the native script and in the others.

    The key is that of the repeat, which the native function prints and the other languages join to
    the rest of the text, or in a query that `stands` the first of all.
    """

    name: str
    function: str
    query: tuple
    native: str
    kemi: str
    check: str = ""
    expected: object = None  # a function of the number of the last repeat
    stands: bool = False
    module: str = OWN

    def native_body(self, keys):
        query = (keys.first if self.stands else "$var(k)").join(self.query)
        prefix = f"{OWN}_" if self.module == OWN else ""
        return f'{prefix}{self.function}("{query}", {self.native});'

    def kemi_body(self, engine, keys):
        head, tail = self.query
        query = f'"{head}{keys.first}{tail}"' if self.stands else engine.join(head, "k", tail)
        return engine.line(f"KSR.{self.module}.{self.function}({query}, {self.kemi})")

    def checked(self):
        if not self.check:
            return {}
        return {"check": self.check, "expected": self.expected(0) if self.stands else self.expected}


def of_row(column):
    return lambda i: row(i * 617 % ROWS)[column]


def longest(i):
    known = set(prefixes(ROWS))
    number = f"{NUMBER}{10000000 + i % 1000000}"
    lengths = range(len(number), 0, -1)
    return next(f"target{number[:length]}" for length in lengths if number[:length] in known)


def with_standing(*cases):
    """Each case, and the same with a query that stands."""
    return [
        case
        for joined in cases
        for case in (
            joined,
            dataclasses.replace(joined, name=f"{joined.name}, query as it stands", stands=True),
        )
    ]


AVPS = '"||$avp(contact)|$avp(state)"'
TARGET = '"|$avp(target)"'
AWAY = '"*|*|*|away"'
ONE_ROW = "|*|*|*,1"
CASES = {
    Keys("user", f"{FIRST_KEY} + ({{0}} * 617) {{1}} {ROWS}", FIRST_KEY): with_standing(
        Case("select, no row", "select", ("flat1000,no", ONE_ROW), AVPS, AVPS),
        Case(
            *("select into 2 AVPs", "select", ("flat1000,", ONE_ROW), AVPS, AVPS),
            check="$avp(contact)",
            expected=of_row(2),
        ),
        Case("update", "update", ("flat1000,", ONE_ROW), AWAY, AWAY),
        # Next to nothing: what the host takes for a call.
        Case(
            *("textops' starts_with", "starts_with", ("flat1000,", ONE_ROW)),
            *('"flat1001"', '"flat1001"'),
            module="textops",
        ),
    ),
    Keys(NUMBER, "10000000 + {0} {1} 1000000", 10000000): with_standing(
        Case(
            *("best match", "select_best_match", ("prefix1000,", "|*")),
            *(f'{TARGET}, "0"', f"{TARGET}, 0"),
            check="$avp(target)",
            expected=longest,
        ),
    ),
}


class KemiStock:
    """Subscribers and prefixes, and the languages with a script each."""

    modules = ()
    shared_mb = 512
    private_mb = 32

    def __init__(self):
        self.engines = engines_there()

    def tables(self):
        return [
            table_text(f"flat{ROWS}", FLAT_COLUMNS, 2 * ROWS),
            table_text(f"prefix{ROWS}", ("prefix 15 0", "target 31 0"), 2 * ROWS),
        ]

    def write(self, where):
        write_rows(where, f"flat{ROWS}", (row(n) for n in range(ROWS)))
        entries = ((text, f"target{text}") for text in prefixes(ROWS))
        write_rows(where, f"prefix{ROWS}", entries)
        for engine in self.engines:
            script = engine.script(functions_of(engine))
            self.script_of(engine, where).write_text(script)

    @staticmethod
    def script_of(engine, where):
        return where / f"loops.{engine.suffix}"

    def parameters(self, where):
        lines = []
        for engine in self.engines:
            lines.append(f'loadmodule "{engine.module}.so"')
            lines += engine.load(self.script_of(engine, where))
        return lines


class KemiLoop(Loop):
    """A loop that a function of a script runs; the clock is read by the server's own script."""

    def __init__(self, engine, name, **more):
        super().__init__(name, engine.call(name), **more)

    def route(self):
        lines = super().route()
        start, end = (n for n, line in enumerate(lines) if "$TV(Sm)" in line)
        return [*lines[:start], lines[start], self.body + ";", *lines[end:]]


def named(*words):
    return "_".join("".join(c if c.isalnum() else "_" for c in word) for word in words)


def functions_of(engine):
    """The loops of a script, by name."""
    found = {}
    for place, (keys, cases) in enumerate(CASES.items()):
        bodies = {f"empty{place}": []}
        bodies |= {case.name: [case.kemi_body(engine, keys)] for case in cases}
        for name, body in bodies.items():
            found[named(engine.name, name)] = [
                *(
                    f'{engine.declares}{part} = {engine.line(value)}'
                    for part, value in (
                        ("first", 'KSR.pv.get("$(hdr(X-From){s.int})")'),
                        ("count", 'KSR.pv.get("$(hdr(X-Count){s.int})")'),
                    )
                ),
                *engine.repeated("count", [keys.kemi(engine), *body]),
            ]
    return found


def loops_of(engine, place, keys, cases):
    """The loops with one sort of keys in one language, or natively; the empty one first."""
    if engine is None:
        empty = Loop(named(NATIVE, f"empty{place}"), "", keys.native())
        return [empty] + [
            Loop(
                named(NATIVE, case.name), case.native_body(keys), keys.native(), **case.checked()
            )
            for case in cases
        ]
    return [KemiLoop(engine, named(engine.name, f"empty{place}"))] + [
        KemiLoop(engine, named(engine.name, case.name), **case.checked()) for case in cases
    ]


def net_times(runner, loops):
    """The loops' nanoseconds, round by round, by language; each language's empty loop is taken
    off."""
    times = runner.rounds([loop for some in loops.values() for loop in some], ROUNDS)
    return {
        engine: host_loops.without({loop.name: times[loop.name] for loop in some}, some[0].name)
        for engine, some in loops.items()
    }


def run(bench, allocator):
    stock = KemiStock()
    groups = [
        (cases, {engine: loops_of(engine, place, keys, cases) for engine in (None, *stock.engines)})
        for place, (keys, cases) in enumerate(CASES.items())
    ]
    routes = {
        loop.name: loop.route() for _, loops in groups for some in loops.values() for loop in some
    }
    rows, missed = [], {engine.name: [] for engine in stock.engines}
    with bench.runner(routes, allocator, stock) as runner:
        for cases, loops in groups:
            nets = net_times(runner, loops)
            for case in cases:
                native = nets[None][named(NATIVE, case.name)]
                cells = []
                for engine in stock.engines:
                    own = nets[engine][named(engine.name, case.name)]
                    beside = host_loops.ratio(own, native)
                    cells.append(f"{statistics.median(own):.0f} ({beside:.2f})")
                    if beside > GOAL and case.module == OWN:
                        missed[engine.name].append(case.name)
                rows.append([case.name, statistics.median(native), *cells])
    host_loops.print_table(
        "Calls from other script languages, ns and beside the native script's "
        f"(allocator {allocator})",
        ["", NATIVE, *(engine.name for engine in stock.engines)],
        rows,
    )
    for name, cases in missed.items():
        told = f"not met: {'; '.join(cases)}" if cases else "met"
        print(f"{name} (goal at most {GOAL}): {told}")
