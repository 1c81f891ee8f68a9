"""Writes at all nodes at once, and what has to be in the tables afterwards."""

import collections
import random
import select
import socket
import time

RESEND = 0.5  # seconds, as UDP asks for
ODD = "|,*\\;=% \t#'\"$()äß"


class Write:  # pylint: disable=too-few-public-methods
    """A request that is on its way: of which key, and what the key has if it succeeds."""

    def __init__(self, key, value, data):
        self.key = key
        self.value = value  # None: it is gone
        self.data = data
        self.sent = 0.0


class Load:
    """Puts and deletes rows. Each key belongs to one node, but for those that all write at once."""

    def __init__(self, nodes, keys, shared=0, seed=1):
        self.nodes = {node.number: node for node in nodes}
        self.random = random.Random(seed)
        self.keys = {
            number: [f"node{number}-{key}" for key in range(keys // len(nodes))]
            for number in self.nodes
        }
        self.shared = [f"all-{key}" for key in range(shared)]
        self.expected = {}
        self.shared_values = collections.defaultdict(set)
        self.uncertain = set()  # written, and not known to have succeeded
        self.turn = dict.fromkeys(self.nodes, 0)
        self.serial = 0
        self.writes = 0
        self.sockets = {}
        for number in self.nodes:
            self.sockets[number] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.sockets[number].setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
            self.sockets[number].bind(("127.0.0.1", 0))
        self.waiting = {number: {} for number in self.nodes}

    def close(self):
        for bound in self.sockets.values():
            bound.close()

    def _value(self):
        text = "".join(self.random.choices(ODD, k=3))
        return f"sip:{self.serial}@10.{self.serial % 250}.0.7:5060;{text}".encode()

    def _next(self, number, deletes, shared):
        """The next key of a node: its own in their order, now and then a shared one."""
        if self.random.random() < shared:
            return self.random.choice(self.shared), False
        keys = self.keys[number]
        self.turn[number] += 1
        return keys[self.turn[number] % len(keys)], self.random.random() < deletes

    def put_new(self, number):
        """Puts a key at a node that no node has had; gives the key."""
        key = f"new-{self.serial}"
        self._ask(number, key, False)
        self._await_all([number])
        return key

    def _write(self, number, *shares):
        self._ask(number, *self._next(number, *shares))

    def _ask(self, number, key, gone):
        self.serial += 1
        value = None if gone else self._value()
        what = "delete" if gone else "put"
        host, port = self.sockets[number].getsockname()
        call = f"{number}-{self.serial}"
        uri = self.nodes[number].uri(what)
        lines = [
            f"MESSAGE {uri} SIP/2.0",
            f"Via: SIP/2.0/UDP {host}:{port};branch=z9hG4bK{call}",
            f"From: <sip:load@example.org>;tag={self.serial}",
            f"To: <{uri}>",
            f"Call-ID: {call}",
            "CSeq: 1 MESSAGE",
            f"X-Key: {key.encode().hex()}",
            f"X-Value: {(value or b'').hex()}",
            "Content-Length: 0",
        ]
        write = Write(key, value, ("\r\n".join(lines) + "\r\n\r\n").encode())
        if key.startswith("all-"):
            self.shared_values[key].add(value)
        self.waiting[number][call.encode()] = write
        self._send(number, write)
        self.writes += 1

    def _send(self, number, write):
        write.sent = time.monotonic()
        node = self.nodes[number]
        self.sockets[number].sendto(write.data, (node.address, node.port))

    def _take(self, number):
        data = self.sockets[number].recv(4096)
        call = data.partition(b"\r\nCall-ID: ")[2].partition(b"\r\n")[0]
        write = self.waiting[number].pop(call, None)
        if write is None:
            return
        assert data.startswith(b"SIP/2.0 200 "), (write.key, data[:40])
        if not write.key.startswith("all-"):
            self.expected[write.key] = write.value

    def run(self, seconds, rate, at=None, deletes=0.1, shared=0.05):
        """So many writes a second over all nodes, or at those of `at`; ends when all are answered.

        `deletes` and `shared` are the shares of deletes and of writes of the keys that all have.
        """
        numbers = sorted(at or self.nodes)
        start = time.monotonic()
        done = 0
        while (passed := time.monotonic() - start) < seconds:
            due = int(passed * rate)
            while done < due:
                self._write(numbers[done % len(numbers)], deletes, shared)
                done += 1
            self._poll(0.002)
        self._await_all(numbers)
        return done

    def _await_all(self, numbers):
        end = time.monotonic() + 10
        while any(self.waiting[number] for number in numbers):
            self._poll(0.01)
            assert time.monotonic() < end, "a write got no answer"

    def fill(self, rate):
        """Puts every key of one node once."""
        keys = sum(len(keys) for keys in self.keys.values())
        return self.run(keys / rate * 1.01, rate, deletes=0.0, shared=0.0)

    def _poll(self, wait):
        by_socket = {bound: number for number, bound in self.sockets.items()}
        for bound in select.select(list(by_socket), [], [], wait)[0]:
            for _ in range(50):
                self._take(by_socket[bound])
                if not select.select([bound], [], [], 0)[0]:
                    break
        now = time.monotonic()
        for number, writes in self.waiting.items():
            for write in list(writes.values())[:20]:
                if now - write.sent > RESEND:
                    self._send(number, write)

    # What has to be there

    def missing(self, found):
        """Keys that have another value than was written last, in one node's values by key."""
        wrong = [key for key, value in self.expected.items() if found.get(key) != value]
        wrong += [key for key, values in self.shared_values.items() if found.get(key) not in values]
        known = self.expected.keys() | self.shared_values.keys()
        return wrong + [key for key in found if key not in known]
