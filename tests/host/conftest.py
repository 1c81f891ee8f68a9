"""Fixtures of the tests on a real server.

Run with TARN_MODULE naming the built module; KAMAILIO= and KAMAILIO_MODULES= choose the server
(see tools/host-root.sh).
"""

import contextlib
import os
import pathlib
import shutil
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from module_host import ModuleHost, host_server  # noqa: E402

# Whatever else happens, none of these belongs in a log.
CRASH_SIGNS = ("killed by a signal", "core dumped", ") BUG: ", ") ALERT: ", "*** ")


def pytest_configure():
    module = os.environ.get("TARN_MODULE")
    if not module or not os.path.isfile(module):
        pytest.exit("TARN_MODULE has to name the built module", returncode=2)
    os.environ["TARN_MODULE"] = os.path.abspath(module)


@contextlib.contextmanager
def hosts_of(node):
    """Makes and starts servers; each has to end in good order when the node's tests are over."""
    made = []

    def make(start=True, **setup):
        # Not pytest's own directory: a socket's path has to fit 108 bytes.
        directory = tempfile.mkdtemp(prefix="tarn-host-")
        made.append(ModuleHost(directory, **setup))
        return made[-1].start() if start else made[-1]

    node.hosts = made
    yield make
    trouble = []
    for server in made:
        if server.running:
            try:
                status = server.stop()
                if status != 0:
                    trouble.append(f"the server ended with status {status}")
            except host_server.ServerTrouble as slow:
                trouble.append(str(slow))
        server.kill()
        signs = set(CRASH_SIGNS) - set(server.expected_signs)
        trouble += [f"the log holds {sign!r}" for sign in signs if sign in server.log()]
    for server in made:
        shutil.rmtree(server.directory)
    assert not trouble, "; ".join(trouble)


@pytest.fixture
def host(request):
    """A maker of servers for one test."""
    with hosts_of(request.node) as make:
        yield make


@pytest.fixture
def refused(host):
    """Starts a server that has to give up, and gives it back with its status in `status`."""

    def refuse(server=None, **setup):
        server = server or host(start=False, **setup)
        with pytest.raises(host_server.StartFailed) as failure:
            server.start()
        server.status = failure.value.status
        assert server.status != 0
        return server

    return refuse


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    if report.failed:
        for server in getattr(item, "hosts", None) or getattr(item.parent, "hosts", ()):
            if server.log_path.exists():
                tail = server.log_path.read_text(errors="replace").splitlines()[-80:]
                report.sections.append((f"server log of {server.directory}", "\n".join(tail)))
