"""The README's first routing script works as typed."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import pathlib

import pytest

import guide_book
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
        ["bash", "-c", script], cwd=folder, capture_output=True, text=True, timeout=60
    ).stdout


def test_the_ten_lines_of_the_first_screen_are_those_of_the_first_script():
    (ten_lines,) = blocks("kamailio")
    assert ten_lines.count("\n") == 10
    # The last one closes what the script goes on with.
    assert any(ten_lines.removesuffix("\n") in block for block in blocks("sh"))


def test_the_first_routing_script_works_as_typed(folder):
    port = str(host_server.free_port())
    files, server, calls = (block.replace(PORT, port) for block in blocks("sh"))
    typed(files, folder)
    with open(folder / "server.log", "wb") as log:
        process = subprocess.Popen(
            # The server is what the last line starts, and what Ctrl-C ends.
            ["bash", "-c", re.sub(r"(?m)^(?=tools/host-kamailio)", "exec ", server)],
            cwd=folder,
            stdin=subprocess.DEVNULL,
            stdout=log,
            stderr=log,
            start_new_session=True,
            preexec_fn=host_server._die_with_parent,
        )
    try:
        define = calls[: calls.index("\n}\n") + 3]
        wait = f"{define}for i in $(seq 100); do ask OPTIONS x | grep -q 404 && exit; done; exit 1"
        assert subprocess.run(["bash", "-c", wait], cwd=folder, timeout=60).returncode == 0
        got = typed(calls, folder).replace("\r", "").splitlines()
        os.killpg(process.pid, signal.SIGINT)
        assert process.wait(20) == 0
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
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
    assert " ERROR: " not in (folder / "server.log").read_text(errors="replace")
    rows = (folder / "build/first/tables/phones.tbl").read_text()
    assert rows == "Version 1\nbob|sip:bob@10.0.0.7\n"
