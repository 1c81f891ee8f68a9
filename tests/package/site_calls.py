"""What phones do with the example site, whichever way it was started."""

import time

import host_sip


class BusyPhone(host_sip.Phone):
    """Takes no call."""

    def answer(self, request, status=486, reason="Busy Here"):
        super().answer(request, status, reason)


def wait_ready(server, timeout=20.0):
    end = time.monotonic() + timeout
    with host_sip.Phone(server, "probe") as phone:
        while True:
            try:
                return phone.request("OPTIONS", "sip:127.0.0.1", timeout=0.1)
            except host_sip.NoReply:
                assert time.monotonic() < end, f"no answer within {timeout} s"


def call(caller, callee, number=None):
    """Calls and hangs up; gives back the replies, and the port that the callee was told.

    The caller tells a port as well, which must not reach the callee.
    """
    uri = f"sip:{number or callee.user}@127.0.0.1"
    call_id = f"call-{time.monotonic_ns()}"
    told = {"X-Media-Port": "1"}
    answer = caller.request("INVITE", uri, told, call_id=call_id, answering=[callee])
    if answer.status != 200:
        return answer.status, None, None
    port = callee.requests[-1].get("x-media-port")
    end = caller.request(
        "BYE",
        callee.contact,
        {"Route": answer.get("record-route")},
        call_id=call_id,
        answering=[callee],
        to=answer.get("to"),
    )
    return answer.status, end.status, port


def use(server, kamcmd):
    """Registers, calls and hangs up, often enough to use each port more than once.

    `kamcmd` runs a command and gives back what it printed.
    """
    wait_ready(server)
    with host_sip.Phone(server, "alice") as alice, host_sip.Phone(server, "bob") as bob:
        assert alice.request("INVITE", "sip:bob@127.0.0.1").status == 404
        for _ in range(2):
            assert bob.request("REGISTER", "sip:127.0.0.1").status == 200
        assert kamcmd("tarn_memdb.select", "phones,*|*|*") == (
            f"TABLE:\nbob|{bob.contact}|127.0.0.1\n"
        )
        ports = []
        for _ in range(300):
            invited, ended, port = call(alice, bob)
            assert (invited, ended) == (200, 200)
            ports.append(int(port))
        # Up to the private ones, and then from the lowest that was given back.
        assert sorted(set(ports)) == list(range(21000, 21200))
        with BusyPhone(server, "carol") as carol:
            assert carol.request("REGISTER", "sip:127.0.0.1").status == 200
            assert call(alice, carol)[0] == 486
        assert kamcmd("tarn_memdb.select", "media,*|*|*|*|*|*|*|*|*") == "TABLE:\n"
        assert alice.request("INVITE", "sip:a%7Cb@127.0.0.1").status == 400
        assert bob.request("REGISTER", "sip:127.0.0.1", {"Expires": "0"}).status == 200
        assert alice.request("INVITE", "sip:bob@127.0.0.1").status == 404
