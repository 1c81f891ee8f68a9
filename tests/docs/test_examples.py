"""The examples of the guide do on a real server what the guide says."""

import os
import shutil
import tempfile

import guide_book
import pytest
from example_server import ExampleServer, is_configuration
from module_host import CRASH_SIGNS, host_server

# One page at a time if ctest says so.
PAGE = os.environ.get("TARN_GUIDE_PAGE")
SECTIONS = [
    section
    for section in guide_book.guide()
    if section.runs and section.page != guide_book.KEMI_PAGE and PAGE in (None, section.page)
]


@pytest.fixture
def serve(request):
    """Makes servers for a section; each has to end in good order when the test is over."""
    made = []
    request.node.hosts = made

    def make(section, blocks):
        # Not pytest's own directory: a socket's path has to fit 108 bytes.
        directory = tempfile.mkdtemp(prefix="tarn-docs-")
        files = {**guide_book.sample_files(), **section.files}
        debug = any(block.marked("debug") for block in section.blocks)
        made.append(ExampleServer(directory, files, blocks, debug))
        return made[-1]

    yield make
    trouble = []
    for server in made:
        if server.running:
            status = server.stop()
            if status != 0:
                trouble.append(f"the server ended with status {status}")
        server.kill()
        trouble += [f"the log holds {sign!r}" for sign in CRASH_SIGNS if sign in server.log()]
        shutil.rmtree(server.directory)
    assert not trouble, "; ".join(trouble)


def refuse(server):
    with pytest.raises(host_server.StartFailed):
        server.start()
    return server


@pytest.mark.parametrize("section", SECTIONS, ids=lambda section: section.name)
def test_section_does_what_it_says(section, serve):
    refused = [block for block in section.blocks if block.marked("refused")]
    accepted = [block for block in section.blocks if block not in refused]
    if section.other:
        accepted += [block for block in section.other.blocks if is_configuration(block)]
    server = serve(section, accepted) if accepted else None
    current = server
    for block in section.blocks:
        if block in refused:
            configuration = [other for other in accepted if is_configuration(other)]
            current = refuse(serve(section, [*configuration, block]))
        elif block.kind == "log":
            current.run(block)
        elif block.kind in guide_book.RUN:
            current = server
            if server.running and (block.marked("stopped") or block.marked("restart")):
                assert server.stop() == 0
            if not server.running and not block.marked("stopped"):
                server.start()
            server.run(block)
