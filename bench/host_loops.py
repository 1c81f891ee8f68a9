"""Loops in the routing script, run in turn with their peers, and what their times come to.

A loop is a route that repeats its body; a request to it tells from which number and how often. It
takes the monotonic clock ahead of the loop and behind it and replies both, so that neither the
network nor the reply is in the figure. What the loop costs without its body is measured by an empty
loop among the others and taken off.
"""

import dataclasses
import statistics
import sys

# Milliseconds that one run of a loop should take: long beside the clock's own cost, and so short
# that most runs aren't interrupted.
RUN_MS = 1.0
# Numbers from the first one of a loop to the first one of the next. Loops of one round then have
# different keys: none finds the rows that it needs fetched into the caches by the one before it.
NUMBERS_APART = 1409
# So few that the values that a run leaves behind stay within the processor's caches, as the few of
# one real request do.
MOST_REPEATS = 400
EMPTY = "empty"


@dataclasses.dataclass(frozen=True)
class Loop:
    """`each` prepares a repeat from its number $var(i), in the empty loop as well. `after` isn't
    timed. `check` is what the script shows in the end, and `expected` the text of that, or a
    function that gives the text for the last number."""

    name: str
    body: str
    each: str = ""
    after: str = ""
    check: str = ""
    expected: object = None
    most: int = MOST_REPEATS

    def route(self):
        lines = [
            "$var(i) = $(hdr(X-From){s.int});",
            "$var(end) = $var(i) + $(hdr(X-Count){s.int});",
            "$var(start) = $TV(Sm);",
            "while ($var(i) < $var(end)) {",
            *(f"  {line}" for line in self.each.splitlines()),
            *(f"  {line}" for line in self.body.splitlines()),
            "  $var(i) = $var(i) + 1;",
            "}",
            r'append_to_reply("X-Clock: $var(start) $TV(Sm)\r\n");',
        ]
        lines += self.after.splitlines()
        if self.check:
            lines.append(f'append_to_reply("X-Check: {self.check}\\r\\n");')
        return lines + ['sl_send_reply("200", "done");', "exit;"]


class WrongResult(AssertionError):
    """A loop that didn't do what it is there for."""


class Runner:
    """Runs loops on a server, by requests from one phone."""

    def __init__(self, server, phone):
        self.server = server
        self.phone = phone
        self.next_number = {}
        self.repeats = {}

    def run(self, loop, count):
        """Runs the loop and gives its nanoseconds per repeat."""
        first = self.next_number.get(loop.name, 0)
        self.next_number[loop.name] = (first + count) % 1000000
        reply = self.phone.request(
            "OPTIONS", self.server.uri(loop.name), {"X-From": str(first), "X-Count": str(count)}
        )
        if reply.status != 200:
            raise WrongResult(f"{loop.name}: {reply.first_line}")
        if loop.check:
            expected = loop.expected
            if callable(expected):
                expected = expected(first + count - 1)
            if reply.get("x-check") != expected:
                raise WrongResult(
                    f"{loop.name}: {loop.check} is {reply.get('x-check')!r}, not {expected!r}"
                )
        start, end = (int(text) for text in reply.get("x-clock").split())
        return (end - start) / count

    def calibrated(self, loop):
        """How often the loop has to repeat to take RUN_MS."""
        if loop.name not in self.repeats:
            self.run(loop, min(20, loop.most))
            each = self.run(loop, min(50, loop.most))
            self.repeats[loop.name] = max(5, min(loop.most, int(RUN_MS * 1e6 / each)))
        return self.repeats[loop.name]

    def rounds(self, loops, count):
        """Runs all loops in each of `count` rounds. Gives their times by name, round by round."""
        times = {loop.name: [] for loop in loops}
        for place, loop in enumerate(loops):
            self.next_number.setdefault(loop.name, place * NUMBERS_APART)
            self.calibrated(loop)
        for n in range(count):
            # To and fro, so that none always has the same one ahead of it.
            for loop in loops if n % 2 == 0 else reversed(loops):
                times[loop.name].append(self.run(loop, self.repeats[loop.name]))
        return times


def without(times, empty):
    """Every loop's times less the empty loop's of the same round."""
    return {
        name: [time - nothing for time, nothing in zip(values, times[empty], strict=True)]
        for name, values in times.items()
        if name != empty
    }


def ratio(own, peer):
    """The median of the quotients of the same rounds."""
    return statistics.median(a / b for a, b in zip(own, peer, strict=True))


def spread(values):
    """Half of the distance of the quartiles, as a part of the median."""
    low, _, high = statistics.quantiles(values, n=4)
    return (high - low) / 2 / statistics.median(values)


def print_table(title, heads, rows):
    """Prints rows of texts and numbers, each column as wide as it needs."""
    texts = [list(heads)] + [[shown(cell) for cell in one] for one in rows]
    widths = [max(len(one[n]) for one in texts) for n in range(len(heads))]
    print(f"\n{title}\n")
    for n, one in enumerate(texts):
        cells = [
            text.ljust(width) if place == 0 else text.rjust(width)
            for place, (text, width) in enumerate(zip(one, widths, strict=True))
        ]
        print("| " + " | ".join(cells) + " |")
        if n == 0:
            print("|" + "|".join("-" * (width + 1) + (":" if place else "-")
                                 for place, width in enumerate(widths)) + "|")
    sys.stdout.flush()


def shown(cell):
    if isinstance(cell, str):
        return cell
    if isinstance(cell, int):
        return str(cell)
    return f"{cell:.2f}" if abs(cell) < 100 else f"{cell:.0f}"
