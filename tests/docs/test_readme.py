"""The README's first site works as typed, and its ten lines with all that may come."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import textwrap
import time

import guide_book
import kemi_engines
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
    _, site, _ = blocks("sh")
    assert textwrap.indent(ten_lines, "    ") in site


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


def test_the_first_site_works_as_typed(folder):
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
        "Contact: <sip:bob@10.0.0.7>;expires=3600",
        "SIP/2.0 302 Moved Temporarily",
        "X-Media-Port: 10000",
        "Contact: <sip:bob@10.0.0.7>",
        "SIP/2.0 302 Moved Temporarily",
        "Contact: <sip:390612@lazio.example.net>",
        "SIP/2.0 404 Not Found",
        "SIP/2.0 400 Bad Request",
        "TABLE:",
        "1|bob|||sip:bob@10.0.0.7||10000||",
        "SIP/2.0 200 OK",
        "SIP/2.0 200 OK",
        "Contact: <sip:carol@10.0.0.7>;expires=3600",
    ]
    assert status == 0
    assert " ERROR: " not in server.log.read_text(errors="replace")
    rows = (folder / "build/first/tables/phones.tbl").read_text()
    assert rows == "Version 1\n2|carol|||sip:carol@10.0.0.7||10001||\n"


class Caller(host_server.host_sip.Phone):
    """A phone that says in its Contact what it is told to."""

    says = None

    def call_as(self, user, contact):
        self.user = user
        self.says = contact and contact.format(user)

    # pylint: disable-next=arguments-differ  (what it says is this one's own)
    def _finish(self, lines, body):
        lines = [line for line in lines if not line.startswith("Contact: ")]
        return super()._finish(lines + [f"Contact: {self.says}"] * (self.says is not None), body)


def kemi_files():
    """The ten lines' scripts in other languages, each with the lines that load it."""
    return {
        name: block.text
        for section in guide_book.page(guide_book.KEMI_PAGE)
        for block in section.blocks
        for name in block.marked("file")
    }


class Site(host_server.Server):
    """The README's site in a directory of its own, changed by (old, new) where a test wants it; its
    script is the README's own, or one in another language."""

    def __init__(self, directory, changes=(), engine=None):
        super().__init__(directory, self._config, private_memory=8 if engine else 4)
        self.engine = engine
        files, server, _ = blocks("sh")
        told = re.compile(r"(?ms)^cat > (\S+) <<'END'\n(.*?)^END\n")
        self.files = dict(told.findall(files + server))
        if engine:
            self._speak(f"phones.{engine.suffix}")
        for old, _ in changes:
            assert any(old in text for text in self.files.values()), old
        self.changes = [*changes, ("build/first/", f"{self.directory}/")]
        for name in ("tables", "backup"):
            (self.directory / name).mkdir()
        for name in ("schema.cfg", "tables/gateways.tbl"):
            (self.directory / name).write_text(self._text(name))
        self.caller = None

    def _speak(self, name):
        found = kemi_files()
        ahead, _, _ = self.files["build/first/kamailio.cfg"].partition("request_route {")
        self.files["build/first/kamailio.cfg"] = ahead + found[f"{name}.cfg"]
        (self.directory / name).write_text(found[name])

    def _text(self, name):
        text = self.files[f"build/first/{name}"]
        for old, new in self.changes:
            text = text.replace(old, new)
        return text

    def _config(self, _):
        text = self._text("kamailio.cfg").replace(PORT, str(self.port))
        text = text.replace("build/demo/tarn_memdb.so", os.environ["TARN_MODULE"])
        ready = f'if ($rU == "{self.READY_USER}") {{ sl_send_reply("200", "Ready"); exit; }}'
        return text.replace("    t_check_trans();\n", f"    t_check_trans();\n    {ready}\n")

    def start(self, timeout=20.0):
        super().start(timeout)
        self.caller = Caller((self.address, self.port), domain=self.address)
        return self

    def ask(self, method, user, contact="<sip:{}@10.0.0.7>", expires=None):
        """What the README's ten lines answer: status, and Contact and port if they tell some."""
        self.caller.call_as(user, contact)
        headers = {} if expires is None else {"Expires": expires}
        where = f"sip:{self.address}" if method == "REGISTER" else self.uri(user)
        reply = self.caller.request(method, where, headers)
        shown = [reply.status, reply.get("contact"), reply.get("x-media-port")]
        return tuple(value for value in shown if value is not None)

    def register(self, user, contact="<sip:{}@10.0.0.7>", expires=None):
        return self.ask("REGISTER", user, contact, expires)

    def call(self, user):
        return self.ask("INVITE", user)

    def next_port(self, last):
        """What the map that ends with a port gives out next; -1 if none is free."""
        _, told, _ = self.kamcmd("tarn_memdb.show_pm_info")
        return int(re.search(rf"Max port = {last}; Next free port = (-?\d+);", told)[1])

    def rows(self, table="phones", columns=9):
        _, out, _ = self.kamcmd("tarn_memdb.select", f"{table},{'|'.join('*' * columns)}")
        return out.splitlines()[1:]


LANGUAGES = [
    engine
    for engine in (None, kemi_engines.LUA, kemi_engines.PYTHON)
    if engine is None or kemi_engines.is_there(engine)
]


@pytest.fixture(params=LANGUAGES, ids=lambda engine: engine.name if engine else "native")
def site(folder, request):
    """Makes and starts sites with the ten lines in one language."""
    made = []

    def make(*changes):
        directory = folder / f"site{len(made)}"
        directory.mkdir()
        made.append(Site(directory, changes, request.param))
        return made[-1].start()

    yield make
    for server in made:
        if server.caller is not None:
            server.caller.close()
        server.kill()


BOB = "<sip:bob@10.0.0.7>"
STORED = f"{BOB};expires=3600"
SCHEMA = 'modparam("tarn_memdb", "cfg_file_path"'
FOUR_PORTS = (SCHEMA, f'modparam("tarn_memdb", "max_ext_port", 10003)\n{SCHEMA}')


def test_the_300th_call_works_as_the_first_with_few_ports(site):
    server = site(FOUR_PORTS)
    for turn in range(310):
        user = f"phone{turn}"
        assert server.register(user) == (200, f"<sip:{user}@10.0.0.7>;expires=3600"), turn
        status, contact, port = server.call(user)
        assert (status, contact) == (302, f"<sip:{user}@10.0.0.7>"), turn
        assert 10000 <= int(port) <= 10003, turn
        assert server.register(user, expires="0") == (200,), turn
    assert server.rows() == []


def test_a_phone_keeps_its_port_over_300_calls_a_move_and_a_restart(site):
    server = site(FOUR_PORTS)
    server.register("bob")
    for turn in range(310):
        assert server.call("bob") == (302, BOB, "10000"), turn
    moved = "<sip:bob@10.0.0.8;transport=tcp>"
    assert server.register("bob", f'"Bob" {moved};q=1') == (200, f"{moved};expires=3600")
    assert server.stop() == 0
    server.start()
    assert server.call("bob") == (302, moved, "10000")
    ports = [server.register(user)[0] for user in ("a", "b", "c", "d")]
    assert ports == [200, 200, 200, 503]


def test_a_phone_that_gets_no_row_costs_no_port(site):
    server = site(FOUR_PORTS, ("MAX_ROWS=5000", "MAX_ROWS=2"))
    assert [server.register(user)[0] for user in ("a", "b")] == [200, 200]
    for turn in range(20):
        assert server.register(f"late{turn}") == (503,), turn
    # The script replies before it gives a port back, so one may be on its way yet.
    end = time.monotonic() + 5
    while server.next_port(10003) == -1:
        assert time.monotonic() < end, "the ports of phones without a row are lost"
    assert server.register("a", expires="0") == (200,)
    assert server.register("c")[0] == 200


@pytest.mark.parametrize(
    ("contact", "expires"),
    [(BOB, "0"), (f"{BOB};expires=0", None), ("*", "0"), (None, "0"), ("<sip:bob@10.0.0.99>", "0")],
)
def test_a_phone_that_expires_goes(site, contact, expires):
    server = site()
    server.register("bob")
    assert server.register("bob", contact, expires) == (200,)
    assert server.rows() == []
    assert server.call("bob") == (404,)


def test_a_registration_without_an_address_tells_and_changes_nothing(site):
    server = site()
    assert server.register("bob", None) == (200,)
    assert server.register("39", None) == (200,)
    server.register("bob")
    for contact in (None, "*"):
        assert server.register("bob", contact) == (200, STORED), contact
    assert " ERROR: " not in server.log()
    for contact in ("<>", "nothing<<"):
        assert server.register("bob", contact) == (200, STORED), contact
    assert len(server.rows()) == 1


def test_what_separates_values_is_refused(site):
    server = site()
    server.register("bob")
    before = server.rows()
    for user in ("*", "b|b", "b,b", "#b", "b" * 32):
        assert server.register(user) == (400,), user
        assert server.call(user) == (400,), user
    for address in ("a|b@c", "a\\b@c", "a'b@c", "a\r\n b@c", "a\tb@c", "a@" + "b" * 250):
        assert server.register("bob", f"<sip:{address}>") == (400,), address
        assert server.register("eve", f"<sip:{address}>") == (400,), address
    assert server.rows() == before


def test_what_hides_behind_a_zero_byte_is_refused(site):
    """An expression sees a text only as far as its first zero byte; an update's list is read on."""
    server = site()
    server.register("bob")
    server.register("eve")
    before = server.rows()
    for address in ("a\0';user=bob;realm='b", "a\0';port=10000;line='b", "a\0b", "a\0\r\n b"):
        for user in ("eve", "new"):
            assert server.register(user, f"<sip:{address}@c>") == (400,), address
    assert server.rows() == before


def test_a_contact_of_odd_but_harmless_bytes_comes_back_from_the_file(site):
    server = site()
    odd = '<sip:*,;=#&%41@[2001:db8::1]:5060;transport=tcp?x=y>'
    assert server.register("bob", odd) == (200, f"{odd};expires=3600")
    assert server.stop() == 0
    server.start()
    assert server.call("bob")[:2] == (302, odd)
    assert "WARNING: tarn" not in server.log()
