"""A node on a real server, whose one peer the test plays."""

import os
import pathlib
import re
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / "tools")]

import cluster_nodes  # noqa: E402  (found by way of the line above)

TEMPLATE = (pathlib.Path(__file__).parent / "site.cfg").read_text()
PATIENCE = 10.0
StartFailed = cluster_nodes.host_server.StartFailed


def two_nodes(template=TEMPLATE, defines=None, tables=None):
    """Two nodes that haven't started, and their links."""
    tables = tables or {"phones": 40, "blocked": 40}
    return cluster_nodes.cluster(2, template, os.environ["TARN_MODULE"], tables, defines=defines)


class Lone:
    """Node 1, whose peer, node 2, never runs: its messages are the test's."""

    def __init__(self, node, links):
        self.node = node
        self.links = links
        self.sent = []
        self.serial = 0
        self.started = time.monotonic()
        links.links[1, 2].watch = self._take

    def _take(self, data):
        self.sent.append(data)
        if data.startswith(b"KDMQ "):
            # Unanswered, the peer would be taken for gone.
            head = data.partition(b"\r\n\r\n")[0].split(b"\r\n")[1:]
            kept = (b"Via:", b"From:", b"To:", b"Call-ID:", b"CSeq:")
            lines = [line for line in head if line.startswith(kept)]
            answer = b"\r\n".join([b"SIP/2.0 200 OK", *lines, b"Content-Length: 0", b"", b""])
            network = self.links.network.encode()
            self.links.inject(2, 1, answer.replace(network + b".1.", network + b".2."))

    def ask(self, what, key, value=b"", seconds=0):
        """The status of a request that runs a route, and the headers of its reply."""
        headers = {"X-Key": key.hex(), "X-Value": value.hex(), "X-For": seconds}
        with self.node.phone() as phone:
            return phone.request("MESSAGE", self.node.uri(what), headers)

    def ask_with_body(self, what, part, body):
        """The same with the body as the key or as the value, and all else empty."""
        with self.node.phone() as phone:
            headers = {"X-Body": part, "X-Key": b"k".hex()}
            return phone.request("MESSAGE", self.node.uri(what), headers, body=body).status

    def put(self, key, value=b"", seconds=0):
        return self.ask("put", key, value, seconds).status == 200

    def delete(self, key):
        return self.ask("delete", key).status == 200

    def find(self, key):
        """The value of a key, or none."""
        reply = self.ask("find", key)
        return bytes.fromhex(reply.get("x-value")) if reply.status == 200 else None

    def rows(self, table="phones"):
        return self.node.rows(table)

    def version(self, ahead=0.0, number=2):
        """What the peer gives a row that it writes now."""
        self.serial += 1
        return (int((time.time() + ahead) * 1000000) + self.serial) * 16 + number

    def message(self, body, channel="cluster_phones"):
        """The peer's message with such a body."""
        self.serial += 1
        host, port = self.links.address(2, 2).split(":")
        head = [
            f"KDMQ sip:{channel}@{self.links.address(2, 1)} SIP/2.0",
            f"Via: SIP/2.0/UDP {host}:{port};branch=z9hG4bK{os.getpid()}x{self.serial}",
            f"From: <sip:{channel}@{host}:{port}>;tag={self.serial}",
            f"To: <sip:{channel}@{self.links.address(2, 1)}>",
            f"Call-ID: {os.getpid()}-{self.serial}",
            "CSeq: 10 KDMQ",
            "Max-Forwards: 1",
            "Content-Type: text/plain",
            f"Content-Length: {len(body)}",
        ]
        return ("\r\n".join(head) + "\r\n\r\n").encode() + body

    def tell(self, *lines, channel="cluster_phones"):
        """Has the peer send lines, and waits until they were read; gives the reply's status."""
        body = "".join(f"{line}\n" for line in lines) if isinstance(lines[0], str) else lines[0]
        data = self.message(body if isinstance(body, bytes) else body.encode(), channel)
        call = re.search(rb"Call-ID: \S+", data)[0]
        self.links.inject(2, 1, data)
        reply = self.await_sent(lambda sent: sent.startswith(b"SIP/2.0") and call in sent)
        return int(reply.split(b" ")[1])

    def tell_phones_side(self, body):
        """Has the peer send to where the node's phones are, and waits for the refusal."""
        link = self.links.links[2, 1]
        data = self.message(body)
        call = re.search(rb"Call-ID: \S+", data)[0]
        link.way_out.sendto(data.replace(*link.views), (self.node.address, self.node.port))
        self.await_sent(lambda sent: sent.startswith(b"SIP/2.0 403 ") and call in sent)

    def await_sent(self, wanted, patience=PATIENCE):
        """The first datagram to the peer, from now on or before, that is wanted."""
        end = time.monotonic() + patience
        while time.monotonic() < end:
            for data in list(self.sent):
                if wanted(data):
                    return data
            time.sleep(0.01)
        raise AssertionError("the node didn't send it")

    def sent_rows(self, *keys):
        """The lines of rows with these keys that the node has sent on the table's channel."""
        bodies = [
            data.partition(b"\r\n\r\n")[2].decode()
            for data in list(self.sent)
            if data.startswith(b"KDMQ sip:cluster_phones@")
        ]
        lines = [line for body in bodies for line in body.splitlines()]
        return [line for line in lines if line[:2] == "r:" and line.split(":")[4] in keys]

    def wait(self, condition, patience=PATIENCE):
        end = time.monotonic() + patience
        while not condition():
            assert time.monotonic() < end, "it didn't come so far"
            time.sleep(0.02)
