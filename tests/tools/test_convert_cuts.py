"""A conversion that is cut off at any step, or whose steps fail, leaves old files or new ones, and
the next run does the rest."""

import errno
import fcntl
import os
import pathlib
import shutil
import tempfile

import pytest
from convert_files import ConvertFiles, expect_done, table

LIST = "tables/tarn-memdb-convert.unfinished"
OLD = {
    "tables/t.tbl": b"Version 1\n1|2\n3|4\n",
    "backup/t.tbl.backup": b"Version 1\n5|6\n",
    "tables/u.tbl": b"Version 1\nx|y\n",
}
NEW = {
    "tables/t.tbl": b"Version 1\n2||1\n4||3\n",
    "backup/t.tbl.backup": b"Version 1\n6||5\n",
    "tables/u.tbl": b"Version 1\ny|x\n",
}


@pytest.fixture
def site():
    """In memory, since each run waits for the disk."""
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory) as folder:
        yield site_in(ConvertFiles(pathlib.Path(folder)))


def site_in(files):
    old = [table("a", "b"), table("c", "d", name="u")]
    files.schemas(old, [table("b", "n", "a"), table("d", "c", name="u")])
    for name, text in OLD.items():
        files.write(name, text)
    return files


def steps(**settings):
    """The environment in which steps are counted, end or fail."""
    return {
        **os.environ,
        "LD_PRELOAD": os.environ["TARN_STEPS_LIB"],
        **{name: str(value) for name, value in settings.items()},
    }


def count_steps(site):
    """How many a whole run has."""
    told = site.directory / "steps"
    assert site.convert("--apply", env=steps(TARN_STEPS=told)).status == 0
    return int(told.read_text())


def restore(site):
    for folder in ("tables", "backup"):
        shutil.rmtree(site.directory / folder)
        (site.directory / folder).mkdir()
    for name, text in OLD.items():
        site.write(name, text)


def expect_old_or_new(site):
    """Each place has all of one; gives the places with new files."""
    now = site.texts()
    new = {name for name in OLD if now[name] == NEW[name]}
    for name, text in OLD.items():
        assert now[name] in (text, NEW[name]), name
        if name in new:
            assert now[f"{name}.old-1"] == text
    # What is left to do is written down from the first rename to the last.
    if 0 < len(new) < len(OLD):
        assert LIST in now
    return new


def expect_finished(site):
    now = site.texts()
    assert {name: now[name] for name in OLD} == NEW
    assert LIST not in now
    for name, text in OLD.items():
        kept = [
            content for other, content in now.items() if other.startswith(f"{name}.old-")
        ]
        assert kept and set(kept) == {text}
    assert not any(name.endswith(".converted") for name in now)


def finish(site):
    """The same command once more."""
    if expect_old_or_new(site) == set(OLD) and LIST not in site.texts():
        return
    told = site.convert("--apply")
    assert told.status == 0, told.out


def test_a_run_that_is_killed_at_any_step_is_done_by_the_next(site):
    count = count_steps(site)
    assert count > 20
    halves = 0
    for step in range(1, count + 1):
        restore(site)
        told = site.convert("--apply", env=steps(TARN_STEP=step))
        assert told.status == -9, step
        halves += 0 < len(expect_old_or_new(site)) < len(OLD)
        finish(site)
        expect_finished(site)
    assert halves == len(OLD) - 1


@pytest.mark.parametrize("error", [errno.ENOSPC, errno.EPERM], ids=os.strerror)
def test_a_step_that_fails_is_told_and_done_by_the_next_run(site, error):
    count = count_steps(site)
    failures = 0
    for step in range(1, count + 1):
        restore(site)
        told = site.convert("--apply", env=steps(TARN_STEP=step, TARN_STEP_ERROR=error))
        new = expect_old_or_new(site)
        # That there is nothing to be removed ahead is a failure as well.
        if told.status == 0:
            assert new == set(OLD)
        else:
            failures += 1
            assert told.status == 2 and os.strerror(error) in told.out, (step, told.out)
            if LIST not in site.texts():
                assert new == set() and told.out.endswith("nothing was changed\n")
                assert not any(name.endswith(".old-1") for name in site.texts())
            else:
                assert "the same command once more goes on with it" in told.out
        finish(site)
        expect_finished(site)
    assert failures > 15


def cut_off(site, at_least=1):
    """Leaves a run in which some files are in place and others aren't."""
    for step in range(1, 1000):
        restore(site)
        site.convert("--apply", env=steps(TARN_STEP=step))
        if at_least <= len(expect_old_or_new(site)) < len(OLD):
            return
    raise AssertionError("no such step")


def test_what_is_left_to_do_is_told(site):
    cut_off(site)
    before = site.texts()
    told = site.convert()
    assert told.status == 1 and site.texts() == before
    assert told.has("new.cfg", 0, "error", "a run with this schema was cut off")
    told = site.convert("--apply")
    assert (told.status, told.out) == (
        0,
        "backup/t.tbl.backup is in its place\ntables/u.tbl is in its place\n"
        "the run that was cut off is finished\n",
    )


def test_an_import_finishes_what_was_cut_off_and_does_nothing_else(site):
    cut_off(site)
    files = ("new.cfg",)
    command = ("--import", "u")
    before = site.texts()
    told = site.convert(*command, files=files, input=b"c,d\n1,2\n")
    assert told.status == 1 and site.texts() == before
    assert told.has("new.cfg", 0, "error", "was cut off: the same command with --apply goes")
    told = site.convert(*command, "--apply", files=files, input=b"c,d\n1,2\n")
    assert told.status == 0 and told.out.endswith("the run that was cut off is finished\n")
    expect_finished(site)


def test_an_import_that_was_cut_off_is_finished_by_the_next(site):
    command = ("--import", "u", "--apply")
    whole = {"files": ("new.cfg",), "input": b"c,d\n1,2\n"}
    told = site.directory / "steps"
    assert site.convert(*command, env=steps(TARN_STEPS=told), **whole).status == 0
    for step in range(1, int(told.read_text()) + 1):
        restore(site)
        assert site.convert(*command, env=steps(TARN_STEP=step), **whole).status == -9
        if site.lines("tables/u.tbl") == ["x|y"] or LIST in site.texts():
            expect_done(site.convert(*command, **whole))
        assert site.lines("tables/u.tbl") == ["2|1"]
        assert LIST not in site.texts()


def test_a_file_that_has_changed_since_is_not_replaced(site):
    cut_off(site)
    site.write("tables/u.tbl", "Version 1\nlater|row\n")
    before = site.texts()
    told = site.convert("--apply")
    assert told.status == 1 and site.texts() == before
    assert told.has("tables/u.tbl", 0, "error", "has changed since the run that was cut off")


def test_the_list_of_a_run_with_another_schema_is_not_followed(site):
    cut_off(site)
    text = site.text("new.cfg").replace("FILE_NAME=u.tbl", "FILE_NAME=v.tbl")
    site.write("new.cfg", text)
    before = site.texts()
    told = site.convert("--apply")
    assert told.status == 1 and site.texts() == before
    assert told.has(LIST, 0, "error", "is of a run with another schema")


@pytest.mark.parametrize(
    "text", ["", "other\n", "tarn-memdb-convert 1\n1\n", "tarn-memdb-convert 1\nx\nend\n"]
)
def test_a_list_that_is_none_is_not_followed(site, text):
    site.write(LIST, text)
    before = site.texts()
    told = site.convert("--apply")
    assert told.status == 2 and site.texts() == before
    assert told.has(LIST, 0, "error", "can't be read as the list")


def test_a_full_disk_is_told_and_leaves_nothing(site):
    site.rows("t", *(f"{i}|{'x' * 30}" for i in range(90)))
    before = site.texts()
    limited = ["prlimit", "--fsize=2048", "env", "--ignore-signal=XFSZ"]
    told = site.convert("--apply", prefix=limited)
    assert told.status == 2 and site.texts() == before
    assert told.has("tables/t.tbl.converted", 0, "error", "can't be written: File too large")


@pytest.mark.parametrize("kind", ["conversion", "import"])
def test_no_run_writes_where_another_one_replaces_files(site, kind):
    before = site.texts()
    folder = os.open(site.directory / "tables", os.O_RDONLY)
    fcntl.flock(folder, fcntl.LOCK_EX)
    if kind == "import":
        told = site.convert("--import", "u", files=("new.cfg",), input=b"c,d\n1,2\n")
    else:
        told = site.convert()
    os.close(folder)
    assert told.status == 1 and site.texts() == before
    assert told.has("tables/", 0, "error", "another run of this program replaces files")
