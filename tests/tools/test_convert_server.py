"""tarn-memdb-convert beside a real server that uses the files."""

import fcntl
import os
import pathlib
import shutil
import sys
import tempfile
import time

import pytest
from convert_files import ConvertFiles, expect_done, table

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests/host")]

import module_host  # noqa: E402  (found by way of the line above)

OLD, NEW = table("a", "b"), table("b", "n", "a")


@pytest.fixture
def site():
    """Files, and a server on them that isn't started."""
    # A socket's path has to fit 108 bytes.
    directory = pathlib.Path(tempfile.mkdtemp(prefix="tarn-cv-"))
    files = ConvertFiles(directory).schemas(OLD, NEW)
    files.rows("t", "1|2", "3|4").rows("t", "5|6", backup=True)
    params = {"cfg_file_path": str(directory / "old.cfg")}
    (directory / "server").mkdir()
    count = {"count": module_host.Call('tarn_memdb_row_count("t", "$avp(n)")', show=("$avp(n)",))}
    server = module_host.ModuleHost(directory / "server", params=params, calls=count)
    yield files, server
    if server.running:
        server.stop()
    server.kill()
    shutil.rmtree(directory)


def expect_refused(files, *command, names=("old.cfg", "new.cfg"), **how):
    before = files.texts()
    told = files.convert("--apply", *command, files=names, **how)
    assert told.status == 1 and told.out.endswith("nothing was changed\n")
    assert told.has("tables/", 0, "error", "is used by a server, which has to be stopped first")
    after = files.texts()
    assert {name: after[name] for name in before if "server/" not in name} == {
        name: text for name, text in before.items() if "server/" not in name
    }


def test_files_are_replaced_once_the_server_is_stopped(site):
    files, server = site
    server.start()
    expect_refused(files)
    expect_refused(files, "--import", "t", names=("old.cfg",), input=b"a,b\n1,2\n")
    expect_done(files.convert())  # beside the old ones
    assert server.stop() == 0
    expect_done(files.convert("--apply"))
    assert files.lines("tables/t.tbl") == ["2||1", "4||3"]
    os.replace(files.directory / "new.cfg", files.directory / "old.cfg")
    server.start()
    assert server.call("count").values == ("2",)


def test_a_server_that_was_started_amid_a_run_is_seen_soon(site):
    files, server = site
    server.params.update(store_tbl_auto=1, store_tbl_interval=1)
    folder = os.open(files.directory / "tables", os.O_RDONLY)
    try:
        fcntl.flock(folder, fcntl.LOCK_EX)
        server.start()
    finally:
        os.close(folder)
    time.sleep(2.5)
    expect_refused(files)


def test_either_schemas_folder_counts(site):
    files, server = site
    (files.directory / "other").mkdir()
    text = files.text("new.cfg").replace("/tables/", "/other/")
    files.write("new.cfg", text)
    server.start()
    told = files.convert("--apply")
    assert told.status == 1 and told.has("tables/", 0, "error", "is used by a server")


def test_two_runs_with_one_schema_are_not_at_work_at_a_time(site):
    files, _ = site
    with open(files.directory / "new.cfg", "rb") as other:
        fcntl.flock(other, fcntl.LOCK_EX)
        told = files.convert()
    assert told.status == 1
    assert told.has("new.cfg", 0, "error", "another run of this program is at work")
