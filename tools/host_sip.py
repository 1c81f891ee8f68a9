"""A small SIP client over UDP: enough to talk to the server under test, and no more."""

import dataclasses
import itertools
import os
import re
import select
import socket
import time

_serial = itertools.count(1)


def _unique():
    return f"{os.getpid()}-{next(_serial)}-{os.urandom(4).hex()}"


@dataclasses.dataclass(frozen=True)
class Message:
    """A request or reply as it came off the wire."""

    first_line: str
    headers: tuple  # of (name in small letters, value)
    body: str
    source: tuple

    @property
    def is_reply(self):
        return self.first_line.startswith("SIP/2.0 ")

    @property
    def status(self):
        return int(self.first_line.split(" ", 2)[1])

    @property
    def reason(self):
        return self.first_line.split(" ", 2)[2]

    @property
    def method(self):
        return self.first_line.split(" ", 1)[0]

    @property
    def uri(self):
        return self.first_line.split(" ", 2)[1]

    def all(self, name):
        return [value for key, value in self.headers if key == name.lower()]

    def get(self, name):
        values = self.all(name)
        return values[0] if values else None


def parse(data, source):
    head, _, body = data.decode("utf-8", "replace").partition("\r\n\r\n")
    first_line, *lines = head.split("\r\n")
    headers = []
    for line in lines:
        name, _, value = line.partition(":")
        headers.append((name.strip().lower(), value.strip()))
    return Message(first_line, tuple(headers), body, source)


class NoReply(AssertionError):
    """The server left a request without a final reply."""


class Phone:
    """One UDP socket that sends requests to a server and answers those that come from it."""

    def __init__(self, server, user="alice", domain="example.org", address="127.0.0.1"):
        self.server = server  # (address, port)
        self.user = user
        self.domain = domain
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((address, 0))
        self.address, self.port = self.socket.getsockname()
        self.requests = []

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def contact(self):
        return f"sip:{self.user}@{self.address}:{self.port}"

    def request(
        self, method, uri, headers=(), body="", call_id=None, timeout=4.0, answering=(), to=None
    ):
        """Sends a request, repeats it as UDP asks for, and gives back the final reply.

        The phones of `answering` answer meanwhile what the server sends them: with 200, keeping
        it in their `requests`. `to` is the header To of a request inside a call.
        """
        if to is None:
            to = f"<{uri}>" if method != "REGISTER" else f"<sip:{self.user}@{self.domain}>"
        call_id = call_id or _unique()
        branch = "z9hG4bK" + _unique()
        tag = _unique()
        lines = [
            f"{method} {uri} SIP/2.0",
            f"Via: SIP/2.0/UDP {self.address}:{self.port};branch={branch};rport",
            "Max-Forwards: 70",
            f"From: <sip:{self.user}@{self.domain}>;tag={tag}",
            f"To: {to}",
            f"Call-ID: {call_id}",
            f"CSeq: 1 {method}",
            f"Contact: <{self.contact}>",
        ]
        lines += [f"{name}: {value}" for name, value in dict(headers).items()]
        data = self._finish(lines, body)

        # T1 of RFC 3261 doubled from half a second: on loopback the first try normally does.
        end = time.monotonic() + timeout
        wait = 0.5
        while True:
            self.socket.sendto(data, self.server)
            again = min(time.monotonic() + wait, end)
            while (message := self._await_reply(again, answering)) is not None:
                if message.get("call-id") == call_id and message.status >= 200:
                    if method == "INVITE":
                        self._acknowledge(message, uri, branch, tag, call_id)
                    return message
            if time.monotonic() >= end:
                raise NoReply(f"no final reply to {method} {uri} within {timeout} s")
            wait *= 2

    def _await_reply(self, end, answering):
        sockets = {phone.socket: phone for phone in (self, *answering)}
        while (left := end - time.monotonic()) > 0:
            for ready in select.select(list(sockets), [], [], left)[0]:
                phone = sockets[ready]
                message = parse(*ready.recvfrom(65535))
                if not message.is_reply:
                    phone.answer(message)
                elif phone is self:
                    return message
        return None

    def answer(self, request, status=200, reason="OK"):
        if request.method == "ACK":
            return
        self.requests.append(request)
        lines = [f"SIP/2.0 {status} {reason}"]
        lines += [f"Via: {value}" for value in request.all("via")]
        lines += [f"Record-Route: {value}" for value in request.all("record-route")]
        lines.append(f"From: {request.get('from')}")
        to = request.get("to")
        lines.append(f"To: {to}" if "tag=" in to else f"To: {to};tag={_unique()}")
        lines.append(f"Call-ID: {request.get('call-id')}")
        lines.append(f"CSeq: {request.get('cseq')}")
        lines.append(f"Contact: <{self.contact}>")
        self.socket.sendto(self._finish(lines, ""), request.source)

    def _acknowledge(self, reply, uri, branch, tag, call_id):
        # The ACK of a refusal belongs to the INVITE's own transaction, the ACK of a success to
        # the callee, whose address the reply's contact gives.
        target = re.search(r"sip:[^>;]+", reply.get("contact") or "")
        if reply.status < 300 and target:
            uri, branch = target.group(), "z9hG4bK" + _unique()
        lines = [
            f"ACK {uri} SIP/2.0",
            f"Via: SIP/2.0/UDP {self.address}:{self.port};branch={branch};rport",
            "Max-Forwards: 70",
            f"From: <sip:{self.user}@{self.domain}>;tag={tag}",
            f"To: {reply.get('to')}",
            f"Call-ID: {call_id}",
            "CSeq: 1 ACK",
        ]
        self.socket.sendto(self._finish(lines, ""), self.server)

    @staticmethod
    def _finish(lines, body):
        content = body.encode()
        lines.append(f"Content-Length: {len(content)}")
        return ("\r\n".join(lines) + "\r\n\r\n").encode() + content
