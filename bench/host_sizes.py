"""The same loops with more and more rows in place, and tables of what they come to."""

import statistics

import host_loops

# From where to where a growth is told.
GROWTH_FROM, GROWTH_TO = 1000, 1000000

# Repeats to a request where there are many: done well before the phone repeats it.
MEET_STEP = 5000

median = statistics.median


def bare(name):
    return name.split("__")[0]


def meet(runner, loop, count):
    """Runs a loop that often ahead of all measuring.

    Tables and trees are loaded ahead of the fork. A worker has none of their pages mapped then, and
    its first touch of each is a page fault, of which one costs more than a select.
    """
    for done in range(0, count, MEET_STEP):
        runner.run(loop, min(MEET_STEP, count - done))


def measured(bench, runner, groups):
    """The nanoseconds of every loop, by the number of rows, by name and round by round; `groups`
    are groups of loops by the number of rows. The empty loop of each is taken off."""
    nets = {}
    for count, group in groups.items():
        times = runner.rounds(group.loops, bench.rounds)
        net = host_loops.without(times, group.loops[0].name)
        nets[count] = {bare(name): spent for name, spent in net.items()}
    return nets


def names_of(nets):
    return list(dict.fromkeys(name for net in nets.values() for name in net))


def cell(nets, count, name):
    return median(nets[count][name]) if name in nets[count] else ""


def growth(nets, name):
    ends = (nets.get(GROWTH_FROM, {}), nets.get(GROWTH_TO, {}))
    if not all(name in net for net in ends):
        return ""
    return median(ends[1][name]) / median(ends[0][name])


def verdict(reached, goal):
    """What is to be said of ratios or times by the number of rows beside their goal."""
    missed = [str(count) for count, value in reached.items() if value > goal]
    if not missed:
        return f"at most {goal}: met"
    where = f" at {', '.join(missed)}" if len(missed) < len(reached) else ""
    return f"at most {goal}: not met{where}"


def print_times(title, nets):
    host_loops.print_table(
        f"{title}: ns",
        ["rows"] + [str(count) for count in nets] + [f"{GROWTH_FROM} to {GROWTH_TO}"],
        [
            [name, *(cell(nets, count, name) for count in nets), growth(nets, name)]
            for name in names_of(nets)
        ],
    )


def print_ratios(nets, ratios):
    """`ratios`: whose time is divided by whose, the goal or None, and the rows that it is set
    for."""
    rows = []
    for own, peer, goal, counts in ratios:
        reached = {
            count: host_loops.ratio(net[own], net[peer])
            for count, net in nets.items()
            if own in net and peer in net
        }
        aimed = {count: value for count, value in reached.items() if count in counts}
        rows.append(
            [f"{own} / {peer}", *(reached.get(count, "") for count in nets)]
            + ["" if goal is None else verdict(aimed, goal)]
        )
    host_loops.print_table("Ratios", ["rows", *(str(count) for count in nets), "goal"], rows)
