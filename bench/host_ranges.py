"""The selects that scan: by a number outside limits, by a number above a limit, by a subnet. What a
row of a scan costs, and what is scanned where the query gives an indexed column."""

import dataclasses

import host_loops
import host_sizes
from host_cases import group_of
from host_loops import Loop
from host_site import table_text, write_rows

ROWS_OF_A_GROUP = 100
LOAD_COUNTS = (100, 500, 30000, 1000000)
SUBNET_COUNTS = (100, 10000, 100000)
LEAD_GOAL = 1.3
NO_ROW = "-2"

# The rows of a group stand one behind the other, as those of a small table, and those of a set far
# apart.
LOAD_COLUMNS = ("grp 15 1", "set 15 1", "name 31 0", "load 7 0")
# Columns 2 to 4 and 12 to 15 have their meaning from the select.
SUBNET_COLUMNS = (
    ("grp 15 1", "set 15 1", "location 15 0", "subnet 15 0", "mask 15 0")
    + tuple(f"other{n} 7 0" for n in range(5, 12))
    + ("by_user 1 0", "by_subnet 1 0", "from 1 0", "contact 1 0")
)


def groups(count):
    return max(count // ROWS_OF_A_GROUP, 1)


def _belongs(n, count):
    return f"group{n // ROWS_OF_A_GROUP}", f"set{n % groups(count)}"


def load_row(n, count):
    return *_belongs(n, count), f"gateway{n}", str(10 + n % 50)


def subnet_row(n, count):
    subnet = f"10.{n // 250 % 250}.{n % 250}.0"
    head = (*_belongs(n, count), "north", subnet, "255.255.255.0")
    return (*head, *("x" for _ in range(5, 12)), "0", "1", "0", "0")


class RangeStock:
    """Gateways with their loads, and subnets."""

    modules = ()
    shared_mb = 1024
    private_mb = 32

    def tables(self):
        return [
            table_text(f"loads{count}", LOAD_COLUMNS, 2 * count) for count in LOAD_COUNTS
        ] + [table_text(f"subnets{count}", SUBNET_COLUMNS, 2 * count) for count in SUBNET_COUNTS]

    def write(self, where):
        for count in LOAD_COUNTS:
            write_rows(where, f"loads{count}", (load_row(n, count) for n in range(count)))
        for count in SUBNET_COUNTS:
            write_rows(where, f"subnets{count}", (subnet_row(n, count) for n in range(count)))

    def parameters(self, _):
        return []


@dataclasses.dataclass(frozen=True)
class Scan:
    """A select that finds no row. `call` has the table and the places of group and set in it."""

    title: str
    tag: str
    call: str
    few: int  # rows of a small table
    many: int  # and of a larger one, all of which it visits
    grouped: int  # and of one whose groups are looked for
    table: str
    check: str = "$var(rc)"
    expected: str = NO_ROW

    def loop(self, name, count, group="*", apart="*"):
        call = self.call.format(table=f"{self.table}{count}", group=group, set=apart)
        return Loop(name, f"{call}\n$var(rc) = $rc;", check=self.check, expected=self.expected)

    def group(self):
        return group_of(
            self.title,
            self.tag,
            f"$var(n) = $var(i) * 617 mod {groups(self.grouped)};\n"
            '$var(g) = "group" + $var(n);\n'
            '$var(s) = "set" + $var(n);',
            [
                self.loop("few", self.few),
                self.loop("many", self.many),
                self.loop("few_group", self.few, group="group0"),
                self.loop("one_group", self.grouped, group="group7"),
                self.loop("any_group", self.grouped, group="$var(g)"),
                self.loop("any_set", self.grouped, apart="$var(s)"),
            ],
        )


SUBNET_FIELDS = "{group}|{set}|*|*|*|*|*|*|*|*|*|*|*|*|*|*"
SCANS = (
    Scan(
        "out_of_range",
        "out",
        'tarn_memdb_nl_select_field_out_of_range("{table},{group}|{set}|*|*", "||$avp(name)", '
        '"3", "5", "100");',
        few=100,
        many=500,
        grouped=1000000,
        table="loads",
    ),
    Scan(
        "within_the_range",
        "within",
        'tarn_memdb_nl_select_field_within_the_range("{table},{group}|{set}|*|*", "$avp(none)", '
        '"3", "100", "0", "$var(above)");',
        few=100,
        many=30000,
        grouped=1000000,
        table="loads",
        check="$var(rc) $var(above)",
        expected=f"{NO_ROW} 0",
    ),
    Scan(
        "subnetmask",
        "subnet",
        'tarn_memdb_nl_select_subnetmask("{table},' + SUBNET_FIELDS + '", "|$avp(name)", '
        '"192.0.2.9", "", "");',
        few=100,
        many=10000,
        grouped=100000,
        table="subnets",
    ),
)


def run(bench, allocator):
    made = {scan: scan.group() for scan in SCANS}
    routes = {loop.name: loop.route() for group in made.values() for loop in group.loops}
    with bench.runner(routes, allocator, RangeStock()) as runner:
        for scan, group in made.items():
            for loop in group.loops[-2:]:
                host_sizes.meet(runner, loop, groups(scan.grouped))
        nets = {
            scan: host_sizes.measured(bench, runner, {0: group})[0] for scan, group in made.items()
        }

    def by_row(scan):
        net = nets[scan]
        return host_sizes.median(
            [
                (many - few) / (scan.many - scan.few)
                for few, many in zip(net["few"], net["many"], strict=True)
            ]
        )

    def text(scan, name, rows):
        return f"{host_loops.shown(host_sizes.median(nets[scan][name]))} of {rows}"

    host_loops.print_table(
        f"Selects that scan (allocator {allocator}), ns of so many rows",
        ["", "a table", "a larger one", "ns for each row"],
        [
            [scan.title, text(scan, "few", scan.few), text(scan, "many", scan.many), by_row(scan)]
            for scan in SCANS
        ],
    )
    rows = []
    for scan in SCANS:
        net = nets[scan]
        # The next group's rows aren't in the caches, so that one group tells what is scanned.
        reached = host_loops.ratio(net["one_group"], net["few_group"])
        names = ("few_group", "one_group", "any_group", "any_set")
        rows.append(
            [scan.title, scan.grouped, *(host_sizes.median(net[name]) for name in names), reached]
            + [host_sizes.verdict({scan.grouped: reached}, LEAD_GOAL)]
        )
    host_loops.print_table(
        f"The same by an indexed column with {ROWS_OF_A_GROUP} rows of a text: ns",
        ["", "rows", f"all of a table of {ROWS_OF_A_GROUP}", "one group", "any group"]
        + ["any set, rows apart", "one group / that table", "goal"],
        rows,
    )
