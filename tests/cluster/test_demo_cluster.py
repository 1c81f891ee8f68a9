"""The demo of a cluster from a user's side."""

import os
import pathlib
import re
import subprocess

DEMO = pathlib.Path(__file__).resolve().parents[2] / "demo/cluster/run"


def test_the_demo_ends_well_with_three_equal_tables():
    ran = subprocess.run(
        [DEMO, os.environ["TARN_MODULE"]],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=100,
        check=False,
    )
    assert (ran.returncode, ran.stderr) == (0, "")
    assert len(re.findall(r"(?m)^\S", ran.stdout)) == 7  # the steps' titles
    assert "the three tables are equal; 3 rows" in ran.stdout
    assert len(ran.stdout.splitlines()) < 80
