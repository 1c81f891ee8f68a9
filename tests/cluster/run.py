#!/usr/bin/env python3
"""Three real servers that keep the same table, in all that can go wrong between them. In each case the
three tables have to be equal within the time that docs/cluster.md tells, with every row that was put
and not deleted, and none that was deleted. Then the same work on the server's own htable.

Usage: tests/cluster/run.py [--short] MODULE.so

The short form has 900 rows instead of 10,000 and few cases.
"""

import contextlib
import pathlib
import shutil
import signal
import sys
import time
import urllib.parse

sys.dont_write_bytecode = True
HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "tools")]

import cluster_nodes  # noqa: E402  (found by way of the lines above)
import host_server  # noqa: E402
from load import Load  # noqa: E402

TEMPLATE = (HERE / "site.cfg").read_text()
LIMIT = 20.0  # seconds until the tables are equal, as docs/cluster.md tells
RATE = 1000  # writes a second over all nodes


class Deviation(AssertionError):
    """The tables aren't as they have to be."""


class Tables:
    """The nodes' tables, as tarn_memdb keeps them."""

    def __init__(self, nodes):
        self.nodes = nodes

    @staticmethod
    def values(node):
        """Live values by key, and all rows as they are."""
        rows = node.rows("phones")
        decoded = {
            urllib.parse.unquote(key): urllib.parse.unquote_to_bytes(value)
            for key, (_, live, _, value) in rows.items()
            if live
        }
        return decoded, rows


class Scene:
    """The cluster while the cases run, one after the other."""

    def __init__(self, nodes, links, load, long):
        self.nodes = {node.number: node for node in nodes}
        self.links = links
        self.load = load
        self.long = long
        self.tables = Tables(nodes)

    def seconds(self, long, short):
        return long if self.long else short

    def write(self, long=8, short=1.5, at=None):
        return self.load.run(self.seconds(long, short), RATE, at)

    def restart(self, number):
        self.nodes[number].start()

    def files(self, number):
        return self.nodes[number].directory

    def until_equal(self, limit):
        """Seconds until all tables are the same; what differs is a deviation after the limit."""
        start = time.monotonic()
        while True:
            asked = time.monotonic() - start
            found = [self.tables.values(node) for node in self.nodes.values()]
            if all(rows == found[0][1] for _, rows in found):
                break
            if asked > limit:
                differ = {key for _, rows in found for key in rows}
                differ = [key for key in differ if len({rows.get(key) for _, rows in found}) > 1]
                raise Deviation(f"{len(differ)} rows differ after {asked:.1f} s: {differ[:5]}")
            time.sleep(0.1)
        wrong = self.load.missing(found[0][0])
        if wrong:
            raise Deviation(f"{len(wrong)} rows are wrong: {wrong[:5]}")
        return asked, len(found[0][1])


def at_once(scene):
    """writes at all three"""
    return scene.write()


def a_stopped_node(scene):
    """one stopped (SIGSTOP)"""
    scene.nodes[3].signal_all(signal.SIGSTOP)
    count = scene.write(at=(1, 2))
    scene.nodes[3].signal_all(signal.SIGCONT)
    return count


def a_killed_node(scene):
    """one killed and started"""
    time.sleep(0.3)  # what it has been given is sent by then
    scene.nodes[3].kill()
    count = scene.write(at=(1, 2))
    scene.restart(3)
    return count


def a_cut(scene):
    """one cut off, writes on both sides"""
    scene.links.cut(3)
    count = scene.write()
    scene.links.mend()
    return count


def a_long_cut(scene):
    """one cut off for 40 s"""
    scene.links.cut(3)
    count = scene.write()
    time.sleep(32)
    scene.links.mend()
    return count


def an_older_file(scene):
    """one with an older file"""
    node = scene.nodes[3]
    node.rows("phones")
    kept = scene.files(3) / "kept.tbl"
    shutil.copy(scene.files(3) / "tables" / "phones.tbl", kept)
    scene.write(4)
    time.sleep(0.3)
    node.kill()
    count = scene.write(4, at=(1, 2))
    shutil.copy(kept, scene.files(3) / "tables" / "phones.tbl")
    (scene.files(3) / "backup" / "phones.tbl.backup").unlink(missing_ok=True)
    scene.restart(3)
    return count


def an_empty_node(scene):
    """one without its files"""
    time.sleep(0.3)
    scene.nodes[3].kill()
    for path in scene.files(3).glob("*/phones.tbl*"):
        path.unlink()
    scene.restart(3)
    return 0


def clock(ahead):
    def case(scene):
        scene.nodes[3].stop()
        scene.nodes[3].faketime = f"{ahead:+d}s"
        scene.restart(3)
        try:
            return scene.write()
        finally:
            scene.nodes[3].faketime = None

    case.__doc__ = f"one with a clock of {ahead:+d} s"
    return case


def right_clock(scene):
    """the same, its clock right again"""
    scene.nodes[3].stop()
    scene.restart(3)
    return scene.write()


def losses(scene):
    """every third datagram lost"""
    scene.links.fault(lose=1 / 3)
    count = scene.write()
    scene.links.mend()
    return count


def losses_go_on(scene):
    """the same, and lost on meanwhile"""
    scene.links.fault(lose=1 / 3)
    return scene.write()


def repeats(scene):
    """repeated and in another order"""
    scene.links.mend()
    scene.links.fault(repeat=True, shuffle=0.2)
    count = scene.write()
    scene.links.mend()
    return count


SHORT = (at_once, a_cut, repeats, a_killed_node)
LONG = (
    at_once,
    a_stopped_node,
    a_killed_node,
    a_cut,
    a_long_cut,
    an_older_file,
    an_empty_node,
    clock(5),
    clock(-5),
    right_clock,
    losses,
    losses_go_on,
    repeats,
)


def run_cases(scene, cases, limit):
    """Runs cases, prints a line for each; the number of those that deviate."""
    bad = 0
    print(f"{'case':38} {'writes':>7} {'until equal':>12} {'messages':>9} {'bytes':>7}  per write")
    for case in cases:
        messages, size = scene.links.carried()
        try:
            count = case(scene)
            took, _ = scene.until_equal(limit)
            after, total = scene.links.carried()
            each = max(count, 1)
            print(
                f"{case.__doc__:38} {count:7} {took:10.1f} s"
                + (f" {(after - messages) / each:9.2f} {(total - size) / each:7.0f}" if count else ""),
                flush=True,
            )
        except Deviation as deviation:
            bad += 1
            print(f"{case.__doc__:38} DEVIATION: {deviation}", flush=True)
        finally:
            scene.links.mend()
    return bad


def main():
    arguments = sys.argv[1:]
    long = arguments[:1] != ["--short"]
    if len(arguments) != (1 if long else 2) or not pathlib.Path(arguments[-1]).is_file():
        print(__doc__, file=sys.stderr)
        return 2
    module = pathlib.Path(arguments[-1]).resolve()
    keys = 10000 if long else 900
    tables = {"phones": 30000, "blocked": 10}
    with cluster_nodes.cluster(3, TEMPLATE, module, tables, memory=64) as (nodes, links):
        for node in nodes:
            node.start()
        with contextlib.closing(Load(nodes, keys, shared=keys // 30)) as load:
            scene = Scene(nodes, links, load, long)
            start = time.monotonic()
            load.fill()
            took = time.monotonic() - start
            equal, count = scene.until_equal(LIMIT)
            print(f"{count} rows written in {took:.1f} s, equal {equal:.1f} s later", flush=True)
            bad = run_cases(scene, LONG if long else SHORT, LIMIT)
        for node in nodes:
            status = node.stop()
            if status != 0:
                bad += 1
                print(f"node {node.number} ended with status {status}")
            signs = [sign for sign in ("killed by a signal", ") BUG: ", ") ALERT: ") if sign in node.log()]
            if signs:
                bad += 1
                print(f"node {node.number}'s log holds {signs}")
    print(f"cluster: {bad} deviations")
    return 1 if bad else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (host_server.StartFailed, host_server.ServerTrouble) as failure:
        sys.exit(f"cluster: {failure}")
