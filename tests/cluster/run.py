#!/usr/bin/env python3
"""Three real servers that keep the same table, in all that can go wrong between them.

In each case the three tables have to be equal within the time that docs/cluster.md tells, with
every row that was put and not deleted, and none that was deleted.

Usage: tests/cluster/run.py [--short | --beside] MODULE.so

The short form has 900 rows instead of 10,000 and few cases. --beside does the same work on the
server's own htable, too, where a deviation is only told.
"""

import contextlib
import pathlib
import re
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
from many_writes import Load  # noqa: E402

LIMIT = 15.0  # seconds until the tables are equal, as docs/cluster.md tells
RATE = 1000  # writes a second over all nodes
TROUBLE = ("killed by a signal", ") BUG: ", ") ALERT: ")


class Deviation(AssertionError):
    """The tables aren't as they have to be."""


class OwnTables:
    """The tables that cluster/ keeps alike."""

    TEMPLATE = (HERE / "site.cfg").read_text()

    @staticmethod
    def read(node):
        """A node's values by key, and all that has to be the same on all nodes."""
        rows = node.rows("phones")
        values = {
            urllib.parse.unquote(key): urllib.parse.unquote_to_bytes(value)
            for key, (_, live, _, value) in rows.items()
            if live
        }
        return values, rows


class Htables:
    """The server's own."""

    TEMPLATE = (HERE / "htable.cfg").read_text()
    asked = 0

    @classmethod
    def read(cls, node):
        """As above. The node writes its rows to its log, since no reply has room for them."""
        cls.asked += 1
        with node.phone() as phone:
            phone.request("MESSAGE", node.uri("rows"), {"X-Key": f"q{cls.asked}"}, timeout=20.0)
        told = re.findall(rf"row of q{cls.asked}: (\w+) (\w+)\.", node.log())
        values = {bytes.fromhex(key).decode(): bytes.fromhex(value) for key, value in told}
        return values, values


class Scene:
    """The cluster while the cases run, one after the other."""

    def __init__(self, nodes, links, load, kind, seconds):
        self.nodes = {node.number: node for node in nodes}
        self.links = links
        self.load = load
        self.kind = kind
        self.seconds = seconds

    def write(self, part=1.0, at=None, **shares):
        return self.load.run(self.seconds * part, RATE, at, **shares)

    def restart(self, number):
        self.nodes[number].start()

    def files(self, number):
        return self.nodes[number].directory

    def until_equal(self, limit):
        """Seconds until all tables are the same; what differs is a deviation after the limit."""
        start = time.monotonic()
        while True:
            asked = time.monotonic() - start
            found = [self.kind.read(node) for node in self.nodes.values()]
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


def same_keys(scene):
    """the same keys at all three"""
    return scene.write(shared=1.0)


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
    scene.write(0.5)
    time.sleep(0.3)
    node.kill()
    count = scene.write(0.5, at=(1, 2))
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
        scene.nodes[3].faketime = None
        key = scene.load.put_new(3)
        version, *_ = scene.nodes[3].rows("phones")[key]
        if abs(version / 16000000 - time.time() - ahead) > 2:
            raise Deviation("the clock isn't off")
        return scene.write()

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
BESIDE = (at_once, same_keys, a_killed_node, a_cut, losses)
LONG = (
    at_once,
    same_keys,
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


def run_case(scene, case):
    """Runs a case and tells what came of it; a deviation is told, too."""
    messages, size = scene.links.carried()
    try:
        count = case(scene)
        told = f"{scene.until_equal(LIMIT)[0]:.1f} s"
        whole = True
    except Deviation as deviation:
        count, told, whole = 0, str(deviation), False
    scene.links.mend()
    after, total = scene.links.carried()
    if count:
        told += f", {(after - messages) / count:.2f} and {(total - size) / count:.0f}"
    return whole, told


@contextlib.contextmanager
def filled(kind, module, keys, seconds):
    """A cluster whose tables are full and equal."""
    tables = {"phones": 3 * keys, "blocked": 10}
    with cluster_nodes.cluster(3, kind.TEMPLATE, module, tables, memory=64) as (nodes, links):
        for node in nodes:
            node.start()
        with contextlib.closing(Load(nodes, keys, shared=keys // 30)) as load:
            scene = Scene(nodes, links, load, kind, seconds)
            load.fill(RATE)
            scene.until_equal(LIMIT)
            yield scene
        for node in nodes:
            if (status := node.stop()) != 0:
                raise Deviation(f"node {node.number} ended with status {status}")
            if signs := [sign for sign in TROUBLE if sign in node.log()]:
                raise Deviation(f"node {node.number}'s log holds {signs}")


def run_own(module, cases, keys, seconds):
    """All cases on one cluster, one after the other; which of them went wrong."""
    wrong = []
    print("case: seconds until equal, messages and bytes for each write", flush=True)
    with filled(OwnTables, module, keys, seconds) as scene:
        for case in cases:
            whole, told = run_case(scene, case)
            print(f"{case.__doc__}: {told}", flush=True)
            if not whole:
                wrong.append(case.__doc__)
    return wrong


def run_beside(module, cases, keys, seconds):
    """Cases on clusters of their own, on cluster/ and on htable; which the first got wrong."""
    wrong = []
    for case in cases:
        for kind, name in ((OwnTables, "cluster/"), (Htables, "htable")):
            try:
                with filled(kind, module, keys, seconds) as scene:
                    whole, told = run_case(scene, case)
            except Deviation as deviation:
                whole, told = False, f"not even full: {deviation}"
            print(f"{case.__doc__}, {name}: {told}", flush=True)
            if not whole and kind is OwnTables:
                wrong.append(case.__doc__)
    return wrong


def main():
    form, module = (sys.argv[1:] if len(sys.argv) == 3 else ["", *sys.argv[1:]])[:2] or ["", ""]
    if form not in FORMS or not pathlib.Path(module).is_file():
        print(__doc__, file=sys.stderr)
        return 2
    run, cases, keys, seconds = FORMS[form]
    wrong = run(pathlib.Path(module).resolve(), cases, keys, seconds)
    print(f"cluster: {len(wrong)} deviations")
    return 1 if wrong else 0


FORMS = {
    "": (run_own, LONG, 10000, 8),
    "--short": (run_own, SHORT, 900, 1.0),
    "--beside": (run_beside, BESIDE, 10000, 5),
}

if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Deviation, host_server.StartFailed, host_server.ServerTrouble) as failure:
        sys.exit(f"cluster: {failure}")
