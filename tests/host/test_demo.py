"""The demo: its sample configuration, and the whole of it from a user's side."""

import importlib.machinery
import importlib.util
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

DEMO = pathlib.Path(__file__).resolve().parents[2] / "demo"
TROUBLE = (") WARNING: ", ") ERROR: ", ") CRITICAL: ", ") ALERT: ", ") BUG: ")


@pytest.fixture(scope="module")
def demo_run():
    """The demo's program as a module: its name has no ending."""
    loader = importlib.machinery.SourceFileLoader("demo_run", str(DEMO / "run"))
    made = importlib.util.module_from_spec(importlib.util.spec_from_loader("demo_run", loader))
    loader.exec_module(made)
    return made


@pytest.fixture
def directory():
    # Not pytest's own directory: a socket's path has to fit 108 bytes.
    made = pathlib.Path(tempfile.mkdtemp(prefix="tarn-demo-test-"))
    yield made
    shutil.rmtree(made)


@pytest.fixture
def sample(demo_run, directory):
    """Fills the sample configuration in, changed if wanted, and gives the server that reads it."""

    made = []

    def fill(change=lambda text: text):
        server = demo_run.make_server(directory, os.environ["TARN_MODULE"])
        made.append(server)
        server.lease_port()
        (directory / "kamailio.cfg").write_text(change(server.compose(server)))
        return server

    yield fill
    for server in made:
        server.kill()


def check(server):
    """Has the host check the configuration; gives its status and all that it says."""
    checked = subprocess.run(
        [server.kamailio, "-c", "-f", str(server.directory / "kamailio.cfg")],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    return checked.returncode, checked.stdout + checked.stderr


def files_of(server):
    return {
        str(path): path.read_bytes()
        for path in sorted(server.directory.rglob("*"))
        if path.is_file()
    }


def test_the_host_finds_nothing_to_say_about_the_sample_configuration(sample):
    server = sample()
    before = files_of(server)
    status, said = check(server)
    assert status == 0, said
    assert "config file ok" in said
    assert [line for line in said.splitlines() if any(word in line for word in TROUBLE)] == []
    assert files_of(server) == before


@pytest.mark.parametrize(
    "right, wrong",
    [
        ("tarn_memdb_row_count(", "tarn_memdb_rows("),
        # One parameter too few.
        ('tarn_memdb_get_port("INT", ', "tarn_memdb_set_port("),
        ('"min_int_port"', '"min_port"'),
    ],
)
def test_the_same_check_finds_a_mistake(sample, right, wrong):
    def mistake(text):
        assert right in text
        return text.replace(right, wrong, 1)

    status, said = check(sample(mistake))
    assert status != 0
    assert any(word in said for word in TROUBLE)


def test_the_sample_configuration_starts_without_an_unexpected_line(sample):
    server = sample()
    server.start()
    assert server.stop() == 0
    said = server.entries("tarn_memdb")
    assert [entry.text for entry in said if entry.level not in ("DEBUG", "INFO")] == []


# The demo itself


def run_demo(temporary, *arguments):
    environment = {**os.environ, "TMPDIR": str(temporary)}
    return subprocess.Popen(
        [str(DEMO / "run"), *arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env=environment,
        start_new_session=True,
    )


def alive(temporary):
    """Processes that work in a directory, or on files of it."""
    found = []
    for process in pathlib.Path("/proc").iterdir():
        try:
            if process.name.isdigit() and str(temporary) in (process / "cmdline").read_text():
                found.append(process.name)
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


def test_the_demo_ends_well_tells_every_step_and_leaves_nothing(demo_run, directory):
    demo = run_demo(directory, os.environ["TARN_MODULE"])
    told, errors = demo.communicate(timeout=120)
    assert (demo.returncode, errors) == (0, "")
    titles = [line for line in told.splitlines() if line and not line.startswith(" ")]
    assert titles == [title for title, _ in demo_run.story.STEPS]
    assert list(directory.iterdir()) == []
    assert alive(directory) == []


def test_an_interrupted_demo_leaves_nothing_either(directory):
    demo = run_demo(directory, os.environ["TARN_MODULE"])
    # The first line of the second step: by then the server runs.
    while not demo.stdout.readline().startswith("Phones register"):
        assert demo.poll() is None
    demo.send_signal(signal.SIGINT)
    _, errors = demo.communicate(timeout=60)
    assert demo.returncode == 1
    assert "ended by SIGINT" in errors
    assert list(directory.iterdir()) == []
    assert alive(directory) == []


@pytest.mark.parametrize("arguments", [(), ("no/such/module.so",), ("--help",)])
def test_the_demo_without_a_module_says_what_is_missing(directory, arguments):
    demo = run_demo(directory, *arguments)
    told, errors = demo.communicate(timeout=60)
    assert (demo.returncode, told) == (2, "")
    assert "demo" in errors
    assert list(directory.iterdir()) == []


def test_a_module_that_does_not_load_fails_the_demo_with_the_log(directory):
    broken = directory / "broken.so"
    broken.write_text("no module")
    temporary = directory / "temporary"
    temporary.mkdir()
    demo = run_demo(temporary, str(broken))
    _, errors = demo.communicate(timeout=120)
    assert demo.returncode == 1
    assert "while starting" in errors
    assert list(temporary.iterdir()) == []
