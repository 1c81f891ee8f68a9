"""The steps of the demo, in the order in which they are told.

A step is a function of the Scene. It sends something, shows in one line what it sent and in one
line what came back, and checks that this is what it should be. A new step is a new function and
a new line of STEPS at the end.
"""

import re

import operating

DOMAIN = "demo.example"
MEDIA_PORT = 21010
OUTER_PORT = 40000


class Unexpected(Exception):
    """A step got something else than it should."""


class Scene:
    """What the steps share: the server, the phones, and what earlier steps left for later ones."""

    def __init__(self, server, ends):
        self.server = server
        self.ends = ends
        self.phones = {}
        self.call_id = None

    def phone(self, user):
        """The phone of a user: one that keeps its address as long as the demo lasts."""
        if user not in self.phones:
            self.phones[user] = self.ends.enter_context(self.server.phone(user, DOMAIN))
        # The server may have been started anew on another port.
        self.phones[user].server = (self.server.address, self.server.port)
        return self.phones[user]

    def sent(self, text):
        print(f"  -> {text}", flush=True)

    def got(self, text):
        print(f"  <- {text}", flush=True)

    def seen(self, text):
        print(f"     {text}", flush=True)

    def expect(self, condition, otherwise):
        if not condition:
            raise Unexpected(otherwise)

    def expect_reply(self, reply, status, reason=None):
        self.got(f"{reply.status} {reply.reason}")
        wanted = f"{status} {reason}" if reason else str(status)
        self.expect(
            reply.status == status and reason in (None, reply.reason),
            f"the server answered {reply.status} {reply.reason!r} instead of {wanted!r}",
        )

    def rows(self, table):
        """The rows in a table's file."""
        path = self.server.directory / "tables" / f"{table}.tbl"
        self.expect(path.exists(), f"there is no file of table {table}")
        return path.read_text().splitlines()[1:]

    def port_entry(self, port):
        """What the port map said last of a port: how many rows hold it, None if nothing."""
        found = re.findall(
            rf"Port (?:{port} After Value =|= {port} is freed and value update to) 0x([0-9a-f]+)",
            self.server.log(),
        )
        return int(found[-1], 16) & 0x3F if found else None


def start_server(scene):
    """A server with the module starts"""
    scene.sent("start; the dial plan and the remote subscribers are files made by hand")
    scene.server.start()
    _, version, _ = scene.server.kamcmd("core.version")
    loaded = re.search(r"Reading cfg file .* OK!", scene.server.log())
    scene.expect(loaded, "the module doesn't say that it has read its schema")
    scene.got(f"{version.strip()} answers")


def register(scene):
    """Phones register: their contacts become rows of the table subscribers"""
    for number, user in enumerate(("bob", "carol"), start=1):
        phone = scene.phone(user)
        scene.sent(f"REGISTER {user}@{DOMAIN}, phone at {phone.address}:{phone.port}")
        reply = phone.request("REGISTER", f"sip:{DOMAIN}")
        scene.expect_reply(reply, 200, f"Stored ({number} in the table)")


def place_call(scene, callee, headers, found="by AVPs, registered from 127.0.0.1", brief=False):
    """Alice calls somebody through the server, and the right phone has to ring."""
    alice, other = scene.phone("alice"), scene.phone(callee)
    other.requests.clear()
    reply = alice.request(
        "INVITE", f"sip:{callee}@{DOMAIN}", headers, answering=[other], call_id=scene.call_id
    )
    scene.expect_reply(reply, 200)
    scene.expect(
        other.requests and other.requests[-1].uri == other.contact,
        f"the call didn't reach {callee}'s phone at {other.contact}",
    )
    told = other.requests[-1].get("x-found")
    scene.expect(told == found, f"{callee}'s phone was told {told!r} instead of {found!r}")
    if not brief:
        scene.seen(f"rang at {other.contact}, found {told}")


def call_by_avps(scene):
    """A call is routed by an exact select into AVPs"""
    scene.sent(f"INVITE bob@{DOMAIN}")
    place_call(scene, "bob", {})
    scene.sent(f"INVITE nobody@{DOMAIN}")
    reply = scene.phone("alice").request("INVITE", f"sip:nobody@{DOMAIN}")
    scene.expect_reply(reply, 404, "No Such Subscriber")


def call_by_xavp(scene):
    """The same by a select into an XAVP"""
    scene.sent(f"INVITE carol@{DOMAIN}")
    place_call(scene, "carol", {"X-Deliver": "xavp"}, "by XAVP, registered from 127.0.0.1")


def claim_port(scene):
    """A call's row in the port-holding table media claims its port"""
    scene.call_id = "call-with-a-port"
    scene.sent(f"INVITE bob@{DOMAIN}, media port {MEDIA_PORT}")
    scene.expect(scene.port_entry(MEDIA_PORT) is None, "the port is taken before the call")
    headers = {"X-Media-Port": MEDIA_PORT}
    place_call(scene, "bob", headers)
    holders = scene.port_entry(MEDIA_PORT)
    scene.expect(holders == 1, f"port {MEDIA_PORT} is held by {holders} rows instead of 1")
    scene.seen(f"port map: {MEDIA_PORT} is in use, held by {holders} row")


def restart(scene):
    """The server is stopped and started again: rows and ports are still there"""
    scene.sent("stop")
    status = scene.server.stop()
    scene.expect(status == 0, f"the server ended with status {status}")
    subscribers, media = scene.rows("subscribers"), scene.rows("media")
    scene.got(f"ended; in its files: {len(subscribers)} subscribers, {len(media)} media row")
    for row in subscribers + media:
        scene.seen(row)
    scene.expect(len(subscribers) == 2, "the subscribers' file doesn't hold the two phones")
    scene.expect(
        media == [f"1|{scene.call_id}||{MEDIA_PORT}|alice|WAN|bob|0|0"],
        "the media table's file doesn't hold the row of the call",
    )

    scene.sent("start")
    scene.server.start()
    holders = scene.port_entry(MEDIA_PORT)
    scene.expect(holders == 1, f"after the start {holders} rows hold port {MEDIA_PORT}")
    scene.got(f"answers; port map: {MEDIA_PORT} is in use, held by {holders} row")

    scene.call_id, the_call = None, scene.call_id
    scene.sent(f"INVITE bob@{DOMAIN}, who hasn't registered again")
    place_call(scene, "bob", {})

    scene.sent("BYE of the call with the port")
    reply = scene.phone("alice").request("BYE", scene.phone("bob").contact, call_id=the_call)
    scene.expect_reply(reply, 200, "Hung Up, Row Deleted")
    holders = scene.port_entry(MEDIA_PORT)
    scene.expect(holders == 0, f"port {MEDIA_PORT} isn't free again")
    scene.seen(f"port map: {MEDIA_PORT} is free again")


def dial_by_prefix(scene):
    """Numbers are routed by their longest prefix, in the group of their domain"""
    gateways = ("europe", "germany", "berlin", "america")
    scene.sent(f"REGISTER of the gateways {', '.join(gateways)}")
    for gateway in gateways:
        phone = scene.phone(gateway)
        reply = phone.request("REGISTER", f"sip:{DOMAIN}")
        scene.expect(reply.status == 200, f"gateway {gateway} can't register")
    scene.got("all stored")
    for number, gateway, prefix in (
        ("4930123@europe.example", "berlin", "4930"),
        ("4989123@europe.example", "germany", "49"),
        ("33123@europe.example", "europe", ""),
        ("4930123@america.example", "america", ""),
    ):
        scene.sent(f"INVITE {number}")
        other = scene.phone(gateway)
        other.requests.clear()
        reply = scene.phone("alice").request("INVITE", f"sip:{number}", answering=[other])
        scene.expect(reply.status == 200, f"the call got {reply.status} {reply.reason!r}")
        scene.expect(other.requests, f"the call didn't reach gateway {gateway}")
        told = other.requests[-1].get("x-found")
        scene.expect(told == f"{gateway}, by prefix '{prefix}'", f"the gateway was told {told!r}")
        scene.got(f"200 OK from {told if prefix else f'{gateway}, the default'}")


def admit(scene):
    """Requests are admitted by subnet, or by user and location domain"""
    for user, address, status, reason in (
        ("carol", "127.8.0.1", 200, "Admitted With office"),
        ("dave", "127.0.0.1", 200, "Admitted With home workers"),
        ("erin", "127.0.0.1", 403, "Not Admitted"),
    ):
        scene.sent(f"MESSAGE from {user} at {address}")
        with scene.server.phone(user, DOMAIN, address) as phone:
            scene.expect_reply(phone.request("MESSAGE", f"sip:bob@{DOMAIN}"), status, reason)


def block_caller(scene):
    """Statements insert, select, update and delete a row: a caller is blocked for a while"""
    alice = scene.phone("alice")

    def block(reason, reply):
        scene.sent(f"block alice, for {reason}")
        headers = {"X-Caller": "alice", "X-Reason": reason}
        answer = alice.request("OPTIONS", scene.server.uri("block"), headers)
        scene.expect_reply(answer, 200, reply)

    def refused(reason):
        scene.sent(f"INVITE bob@{DOMAIN}")
        scene.expect_reply(alice.request("INVITE", f"sip:bob@{DOMAIN}"), 403, f"Blocked: {reason}")

    block("spam", "Row 1 Inserted")
    refused("spam")
    block("noise", "Row Updated")
    refused("noise")
    scene.sent("unblock alice")
    answer = alice.request("OPTIONS", scene.server.uri("unblock"), {"X-Caller": "alice"})
    scene.expect_reply(answer, 200, "Row Deleted")
    scene.sent(f"INVITE bob@{DOMAIN}")
    place_call(scene, "bob", {}, brief=True)


def call_with_next_port(scene, call_id, headers=None):
    """Places a call that leaves the choice of its port to the server, and gives the port."""
    scene.call_id = call_id
    place_call(scene, "bob", {"X-Media-Port": "any", **(headers or {})}, brief=True)
    scene.call_id = None
    ports = re.findall(r"tarn_memdb_get_port: port to be returned = (\d+)", scene.server.log())
    scene.expect(ports, "the server took no port")
    port = int(ports[-1])
    holders = scene.port_entry(port)
    scene.expect(holders == 1, f"port {port} is held by {holders} rows instead of 1")
    scene.seen(f"port map: {port} is taken, held by {holders} row")
    return port


def pair_ports(scene):
    """A call takes the next free port, its row leads from either port to the other"""
    scene.sent(f"INVITE bob@{DOMAIN}, outer port {OUTER_PORT}, any inner port")
    inner = call_with_next_port(scene, "call-with-two-ports", {"X-Outer-Port": OUTER_PORT})
    asking = scene.phone("alice")
    for side, port, other in (
        ("external_port", OUTER_PORT, inner),
        ("internal_port", inner, OUTER_PORT),
    ):
        scene.sent(f"what is the other port of {side} {port}?")
        headers = {"X-Side": side, "X-Port": port}
        answer = asking.request("OPTIONS", scene.server.uri("other-port"), headers)
        scene.expect_reply(answer, 200, f"The Other Port Is {other}")
    scene.sent("BYE")
    contact = scene.phone("bob").contact
    reply = asking.request("BYE", contact, call_id="call-with-two-ports")
    scene.expect_reply(reply, 200, "Hung Up, Row Deleted")
    holders = scene.port_entry(inner)
    scene.expect(holders == 0, f"port {inner} isn't free again")
    scene.seen(f"port map: {inner} is free again")


def clear_ports(scene):
    """All ports are cleared, with the rows that hold them"""
    scene.sent(f"INVITE bob@{DOMAIN}, any inner port")
    before = call_with_next_port(scene, "call-before-the-clearing")
    scene.sent("clear the ports")
    reply = scene.phone("alice").request("OPTIONS", scene.server.uri("clear-ports"))
    scene.expect_reply(reply, 200, "Ports And Their Rows Cleared")
    scene.expect(scene.rows("media") == [], "the media table's file still holds a row")
    scene.seen("the media table's file is empty")
    scene.sent(f"INVITE bob@{DOMAIN}, any inner port")
    after = call_with_next_port(scene, "call-after-the-clearing")
    scene.expect(after < before, f"the first port after {before} isn't the lowest, but {after}")


def stop_server(scene):
    """The server stops"""
    scene.sent("stop")
    status = scene.server.stop()
    scene.expect(status == 0, f"the server ended with status {status}")
    media = scene.rows("media")
    scene.expect(len(media) == 1, f"the media table's file holds {len(media)} rows instead of 1")
    scene.got(f"ended; in the media table's file: {media[0]}")


STEPS = [
    (step.__doc__, step)
    for step in (
        start_server,
        register,
        call_by_avps,
        call_by_xavp,
        claim_port,
        restart,
        dial_by_prefix,
        admit,
        block_caller,
        pair_ports,
        clear_ports,
        *operating.STEPS,
        stop_server,
    )
]
