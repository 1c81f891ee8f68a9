"""What tools/rooms.py tells of a tree whose files lie or include where they shouldn't."""

import pathlib
import shutil
import subprocess
import sys

import pytest

ROOMS = pathlib.Path(__file__).resolve().parent.parent.parent / "tools" / "rooms.py"


@pytest.fixture(name="told")
def _told(tmp_path):
    """What is told of a tree with two rooms, the upper one first, and these files."""

    def told(**includes):
        (tmp_path / "tools").mkdir()
        shutil.copy(ROOMS, tmp_path / "tools")
        (tmp_path / "rooms.txt").write_text("# from the top down\nupper\nlower\n")
        files = {"upper/a.h": [], "lower/b.h": [], **includes.get("files", {})}
        for name, included in files.items():
            path = tmp_path / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("".join(f'#include "{other}"\n' for other in included))
        command = [sys.executable, tmp_path / "tools" / "rooms.py", "check"]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        assert (done.returncode == 0) == (done.stderr == "")
        return done.stderr.splitlines()

    return told


def test_includes_of_the_own_room_and_of_rooms_below_are_good(told):
    assert told(files={"upper/a.h": ["upper/c.h", "lower/b.h"], "upper/c.h": []}) == []


def test_an_include_from_above_is_told(told):
    assert told(files={"lower/b.h": ["upper/a.h"]}) == [
        "lower/b.h includes upper/a.h, which lies above it"
    ]


def test_headers_that_include_each_other_are_told(told):
    (circle,) = told(files={"lower/b.h": ["lower/c.h"], "lower/c.h": ["lower/b.h"]})
    assert circle == "circle: lower/b.h -> lower/c.h -> lower/b.h"


def test_a_file_outside_of_all_rooms_is_told(told):
    assert told(files={"upper/attic/d.h": []}) == ["upper/attic/d.h lies in no room of rooms.txt"]


def test_a_full_room_is_told(told):
    assert told(files={f"lower/n{i}.h": [] for i in range(20)}) == [
        "lower holds 21 files, more than 20"
    ]
