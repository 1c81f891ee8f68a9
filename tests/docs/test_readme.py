"""The README's first routing script works as typed."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

import guide_book
import pytest
from module_host import host_server

README = guide_book.ROOT / "README.md"
PORT = "5062"


def blocks(kind):
    return [
        block.text
        for section in guide_book.sections(README)
        for block in section.blocks
        if block.kind == kind
    ]


@pytest.fixture
def folder():
    """What the reader has after `make demo`, as far as the README uses it."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tarn-readme-"))
    (folder / "tools").symlink_to(guide_book.ROOT / "tools")
    (folder / "build" / "demo").mkdir(parents=True)
    (folder / "build" / "demo" / "tarn_memdb.so").symlink_to(os.environ["TARN_MODULE"])
    yield folder
    shutil.rmtree(folder)


def typed(script, folder):
    return subprocess.run(
        ["bash", "-c", script], cwd=folder, check=False, capture_output=True, text=True, timeout=60
    ).stdout


def test_the_ten_lines_of_the_first_screen_are_those_of_the_first_script():
    (ten_lines,) = blocks("kamailio")
    assert ten_lines.count("\n") == 10
    # The last one closes what the script goes on with.
    assert any(ten_lines.removesuffix("\n") in block for block in blocks("sh"))


class Server:
    """The server of the README: what the last line of its block starts, and Ctrl-C ends."""

    def __init__(self, folder, block):
        self.log = folder / "server.log"
        with open(self.log, "wb") as log:
            # It lives on, and what runs ahead of it calls prctl and nothing else.
            # pylint: disable-next=consider-using-with,subprocess-popen-preexec-fn
            self.process = subprocess.Popen(
                ["bash", "-c", re.sub(r"(?m)^(?=tools/host-kamailio)", "exec ", block)],
                cwd=folder,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
                preexec_fn=host_server._die_with_parent,
            )

    def answers(self, folder, calls):
        define = calls[: calls.index("\n}\n") + 3]
        for _ in range(100):
            if "404" in typed(f"{define}ask OPTIONS x", folder):
                return True
            if self.process.poll() is not None:
                return False
        return False

    def interrupt(self):
        os.killpg(self.process.pid, signal.SIGINT)
        return self.process.wait(20)

    def kill(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()


def test_the_first_routing_script_works_as_typed(folder):
    for _ in range(5):
        lease = host_server.PortLease("127.0.0.1")
        port = str(lease.port)
        files, server_block, calls = (block.replace(PORT, port) for block in blocks("sh"))
        typed(files, folder)
        server = Server(folder, server_block)
        try:
            if server.answers(folder, calls):
                got = typed(calls, folder).replace("\r", "").splitlines()
                status = server.interrupt()
                break
        finally:
            server.kill()
            lease.release()
        # Between finding a free port and binding it another process may have been faster.
        assert "Address already in use" in server.log.read_text(errors="replace")
    assert got == [
        "SIP/2.0 200 OK",
        "SIP/2.0 302 Moved Temporarily",
        "Contact: <sip:bob@10.0.0.7>",
        "X-Media-Port: 21000",
        "SIP/2.0 302 Moved Temporarily",
        "Contact: <sip:lazio.example.net>",
        "X-Media-Port: 21001",
        "SIP/2.0 404 Not Found",
        "TABLE:",
        "bob|sip:bob@10.0.0.7",
    ]
    assert status == 0
    assert " ERROR: " not in server.log.read_text(errors="replace")
    rows = (folder / "build/first/tables/phones.tbl").read_text()
    assert rows == "Version 1\nbob|sip:bob@10.0.0.7\n"
