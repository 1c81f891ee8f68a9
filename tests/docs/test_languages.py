"""The examples of the page on other script languages do in each of them what the page says."""

import re
import shutil
import tempfile

import guide_book
import kemi_engines
import pytest
from example_server import CALLEE, ExampleServer, expect
from kemi_engines import NULL
from module_host import CRASH_SIGNS

SECTIONS = [
    section
    for section in guide_book.page(guide_book.KEMI_PAGE)
    if any(b.kind in guide_book.LANGUAGES and not b.marked("file") for b in section.blocks)
]
GIVES_TEXT = re.compile(r"KSR\.tarn_memdb\.(get|escape)\(")
PORT_TABLES = ("media",)  # reading their files again would count their ports twice


def steps(block):
    """The expressions of an example, each with what it gives or None."""
    lines = block.text.splitlines()
    return [
        (line, following[2:] if following.startswith("# ") else None)
        for line, following in zip(lines, [*lines[1:], ""], strict=True)
        if not line.startswith("# ")
    ]


def shown_text(wanted):
    return {"null": NULL, '""': ""}.get(wanted, wanted)


class SpeakingServer(ExampleServer):
    """A server that runs the examples of all sections in one language."""

    def __init__(self, directory, engine):
        self.engine = engine
        self.examples = [
            block
            for section in SECTIONS
            for block in section.blocks
            if block.kind in ("kemi", engine.name)
        ]
        script = f"{directory}/examples.{engine.suffix}"
        load = "\n".join([f'loadmodule "{engine.module}.so"', *engine.load(script), ""])
        super().__init__(
            directory, guide_book.sample_files(), [guide_book.Block("kamailio", load, 0, [])]
        )
        self.private_memory = 8
        functions = {f"example_{block.line}": self._lines(block) for block in self.examples}
        (self.directory / f"examples.{engine.suffix}").write_text(engine.script(functions))

    def _lines(self, block):
        if block.kind != "kemi":
            return block.text.splitlines()
        return [
            self.engine.line(expression) if wanted is None else self.engine.shown(expression)
            for expression, wanted in steps(block)
        ]

    def _script(self):
        lines = ["request_route {"]
        for block in self.examples:
            name = f"example_{block.line}"
            lines.append(f'  if ($hdr(X-Example) == "{block.line}") {self.engine.call(name)};')
        return "\n".join([*lines, '  sl_send_reply("200", "ran");', "}", ""])

    def reset(self):
        """Puts the sample rows back, and forgets what was logged."""
        for name, text in guide_book.sample_files().items():
            table = re.fullmatch(r"tables/(\w+)\.tbl", name)
            if table and table[1] not in PORT_TABLES:
                (self.directory / "var" / name).write_text(text)
                self.jsonrpc("tarn_memdb.reload_table", table[1])
        self.log_start = self.log_path.stat().st_size

    def run_example(self, block):
        headers = {"X-Example": str(block.line)}
        for header in block.marked("request"):
            name, _, value = header.partition(": ")
            headers[name] = value
        with self.phone("alice", "example.net") as phone:
            reply = phone.request("OPTIONS", self.uri(CALLEE), headers)
        expect([value[1:-1] for value in reply.all("x-show")], self._wanted(block))

    def _wanted(self, block):
        told = steps(block) if block.kind == "kemi" else []
        return [
            shown_text(value) if self.engine.gives_texts or not GIVES_TEXT.match(call) else NULL
            for call, value in told
            if value is not None
        ]


@pytest.fixture(
    scope="module", params=kemi_engines.engines_there(), ids=lambda engine: engine.name
)
def speaking(request):
    # Not pytest's own directory: a socket's path has to fit 108 bytes.
    server = SpeakingServer(tempfile.mkdtemp(prefix="tarn-docs-"), request.param)
    request.node.hosts = [server]
    server.start()
    yield server
    status = server.stop()
    server.kill()
    signs = [sign for sign in CRASH_SIGNS if sign in server.log()]
    shutil.rmtree(server.directory)
    assert (status, signs) == (0, [])


@pytest.mark.parametrize("section", SECTIONS, ids=lambda section: section.name)
def test_section_does_what_it_says(section, speaking):
    speaking.reset()
    for block in section.blocks:
        if block.kind in ("kemi", speaking.engine.name):
            speaking.run_example(block)
        elif block.kind == "log" and speaking.engine.gives_texts:
            speaking.run(block)
