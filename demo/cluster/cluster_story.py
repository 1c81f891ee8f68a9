"""The steps of the cluster's demo, in the order in which they are told.

A step is a function of the Scene. It does something, shows what, and checks what comes of it.
"""

import contextlib
import time

DOMAIN = "demo.example"
PATIENCE = 20.0  # seconds, beyond what docs/cluster.md tells


class Unexpected(Exception):
    """A step got something else than it should."""


class Scene:
    """The nodes, the links between them, and the phones, which keep their addresses."""

    def __init__(self, nodes, links):
        self.nodes = {node.number: node for node in nodes}
        self.links = links
        self.ends = contextlib.ExitStack()
        self.phones = {}

    def close(self):
        self.ends.close()

    def phone(self, name, number):
        """The phone of that name, which talks to a node."""
        node = self.nodes[number]
        if name not in self.phones:
            self.phones[name] = self.ends.enter_context(node.phone(name.partition("-")[0], DOMAIN))
        self.phones[name].server = (node.address, node.port)
        return self.phones[name]

    def register(self, name, number, expires=3600):
        phone = self.phone(name, number)
        print(f"  -> {name} registers at node {number}: {phone.contact}", flush=True)
        reply = phone.request("REGISTER", f"sip:{DOMAIN}", {"Expires": expires})
        print(f"  <- {reply.status} {reply.reason}", flush=True)
        expect(reply.status == 200, f"the registration got {reply.status}")

    def call(self, user, number):
        """The status of a call to a user through a node, and the phone that rang."""
        alice = self.phone("alice", number)
        others = [phone for name, phone in self.phones.items() if name.startswith(user)]
        for phone in others:
            phone.requests.clear()
        reply = alice.request("INVITE", f"sip:{user}@{DOMAIN}", answering=others)
        rang = [phone.contact for phone in others if phone.requests]
        return reply.status, rang[0] if rang else None

    def calls_until(self, user, number, wanted, contact=None):
        """Calls until the reply is as wanted, and tells how long that took."""
        print(f"  -> alice calls {user} through node {number}", flush=True)
        start = time.monotonic()
        while True:
            status, rang = self.call(user, number)
            took = time.monotonic() - start
            if (status, rang) == (wanted, contact):
                break
            expect(took < PATIENCE, f"after {took:.1f} s it is {status}, and {rang} rings")
            time.sleep(0.05)
        ringing = f", rang at {rang}" if rang else ""
        after = f", after {took:.1f} s" if took > 0.3 else ""
        print(f"  <- {status}{ringing}{after}", flush=True)

    def rows(self):
        return {number: node.rows("phones") for number, node in self.nodes.items()}

    def wait_equal(self):
        start = time.monotonic()
        while len({tuple(sorted(rows.items())) for rows in self.rows().values()}) != 1:
            took = time.monotonic() - start
            expect(took < PATIENCE, f"the tables still differ after {took:.1f} s: {self.rows()}")
            time.sleep(0.1)
        return time.monotonic() - start


def expect(condition, otherwise):
    if not condition:
        raise Unexpected(otherwise)


def start(scene):
    """Three servers start, each with a table of its own"""
    for number, node in scene.nodes.items():
        node.start()
        print(f"     node {number}: phones at {node.address}:{node.port}, ", end="")
        print(f"nodes at {scene.links.address(number, number)}", flush=True)


def call_elsewhere(scene):
    """A phone registers at the first and is called at the second"""
    scene.register("bob", 1)
    scene.calls_until("bob", 2, 200, scene.phones["bob"].contact)
    scene.calls_until("nobody", 2, 404)


def lose_a_node(scene):
    """The third is killed; phones come and go meanwhile"""
    scene.register("carol", 1)
    scene.calls_until("carol", 3, 200, scene.phones["carol"].contact)
    scene.nodes[3].kill()
    print("     node 3 is killed", flush=True)
    scene.register("dave", 2)
    scene.register("carol", 1, expires=0)
    scene.register("bob-mobile", 2)


def have_it_back(scene):
    """It comes back with what it stored, and gets what it missed"""
    scene.nodes[3].start()
    print("     node 3 is started", flush=True)
    scene.calls_until("dave", 3, 200, scene.phones["dave"].contact)
    scene.calls_until("carol", 3, 404)
    scene.calls_until("bob", 3, 200, scene.phones["bob-mobile"].contact)


def start_empty(scene):
    """The second loses its files: the others tell it all"""
    node = scene.nodes[2]
    node.kill()
    for path in node.directory.glob("*/phones.tbl*"):
        path.unlink()
    node.start()
    print("     node 2 is killed, loses its files, and is started", flush=True)
    print(f"     the three tables are equal, after {scene.wait_equal():.1f} s", flush=True)
    scene.calls_until("bob", 2, 200, scene.phones["bob-mobile"].contact)


def cut(scene):
    """The network is cut; both sides change the same row"""
    scene.wait_equal()
    scene.links.cut(3)
    print("     node 3 is cut off from nodes 1 and 2", flush=True)
    scene.register("bob-office", 1)
    scene.register("bob-home", 3)
    scene.calls_until("bob", 2, 200, scene.phones["bob-office"].contact)
    scene.calls_until("bob", 3, 200, scene.phones["bob-home"].contact)


def agree(scene):
    """The network is whole again: the last registration counts everywhere"""
    scene.links.mend()
    print("     node 3 is no longer cut off", flush=True)
    for number in scene.nodes:
        scene.calls_until("bob", number, 200, scene.phones["bob-home"].contact)
    scene.wait_equal()
    rows = scene.rows()[1]
    print(f"     the three tables are equal; {len(rows)} rows, of which ", end="")
    print(f"{sum(not live for _, live, _, _ in rows.values())} marks a phone that went:")
    for key, (version, live, until, value) in sorted(rows.items()):
        print(f"     {key}|{version}|{int(live)}|{until}|{value}", flush=True)


STORY = (start, call_elsewhere, lose_a_node, have_it_back, start_empty, cut, agree)
STEPS = tuple((step.__doc__, step) for step in STORY)
