"""A forecast that is wrong doesn't pass the comparison with a real server: one fault after the
other is planted into right reports."""

import copy
import pathlib
import shutil
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / "forecast"))

import forecast  # noqa: E402  (found by way of the line above)
import random_sets  # noqa: E402


class HandMade(random_sets.RandomSet):
    """A set without chance: tables of two columns, and what a test does with them."""

    def __init__(self, directory, arrange):
        super().__init__(0, directory)
        self.tables = [
            random_sets.Table(f"t{i}", f"t{i}.tbl", [9, 9], 100, False, False, ()) for i in range(3)
        ]
        for table in self.tables:
            self.main(table).write_text("Version 1\nab|cd\nef|gh\n")
            self.backup(table).write_text("Version 1\nold|row\n")
        self.ranges.write_text("INT 21200 21201\n")
        arrange(self)
        self._write_schema()


def write(made, number, text):
    made.main(made.tables[number]).write_text(text)


def good(_made):
    pass


def bad_main(made):
    write(made, 1, "Version 1\nab\n")


def changed_rows(made):
    write(made, 1, "Version 1\nab|1\\2\nthis one is cut|cd\n#ef|gh\nij|kl\n")


def no_backup(made):
    made.backups = made.directory / "gone"


def no_folder(made):
    made.tables[1].file_name = "sub/t1.tbl"


def equal_rows(made):
    made.tables[1].check_duplicates = True
    write(made, 1, "Version 1\nab|cd\nef|gh\nab|cd\n")


def odd_ranges(made):
    made.ranges.write_text("WEB 1 2\nINT 21200 21201\n\n")


def too_little_memory(made):
    made.memory = 2
    write(made, 1, "Version 1\n" + "ab|cd\n" * 30_000)


def failing_start(made):
    made.tables[1].lengths = [9, 9, 9]
    made.tables[1].block = lambda: "TABLE_NAME=t1\nCOLOUR=red\n"


@pytest.fixture(scope="module")
def followed():
    """Gives a set, what is told of it and what is seen, once for each arrangement."""
    known, directories = {}, []

    def follow(arrange):
        if arrange not in known:
            directories.append(tempfile.mkdtemp(prefix="tarn-fc-"))
            made = HandMade(directories[-1], arrange)
            known[arrange] = (made, *forecast.follow(made)[1:])
        return known[arrange]

    yield follow
    for directory in directories:
        shutil.rmtree(directory)


def without(part):
    """Takes out the findings with that text."""

    def plant(report):
        kept = [found for found in report["findings"] if part not in found["text"]]
        assert kept != report["findings"], f"nothing tells {part!r}"
        report["findings"] = kept
        report["clean"] = not kept

    return plant


def with_value(path, value):
    """Sets another value; the path is that of the value in the report."""

    def plant(report):
        *way, last = path
        for step in way:
            report = report[step]
        assert report[last] != value
        report[last] = value

    return plant


def moved(report):
    main = report["tables"][1]["file"]
    report["put_away"].append({"file": main, "to": main + ".refused"})


def unfounded(report):
    source = report["tables"][1]["file"]
    report["findings"].append({"file": source, "line": 2, "severity": "warning", "text": CHANGED})
    report["clean"] = False


CHANGED = "the row loads changed: so it says"

PLANTED = [
    (good, with_value(["start"], "fails")),
    (good, with_value(["start"], "hangs")),
    (good, with_value(["tables", 1, "rows"], 3)),
    (good, with_value(["tables", 0, "rows"], 0)),
    (good, with_value(["clean"], False)),
    (good, moved),
    (good, unfounded),
    (bad_main, with_value(["put_away"], [])),
    (bad_main, with_value(["put_away", 0, "to"], None)),
    (bad_main, with_value(["tables", 1, "rows"], 0)),
    (changed_rows, without("backslashes")),
    (changed_rows, without("is cut to")),
    (changed_rows, without("is taken for a comment")),
    (no_backup, without("no backup is ever made")),
    (no_folder, without("is lost at a restart")),
    (equal_rows, without("counts as equal")),
    (odd_ranges, without("is skipped")),
    (odd_ranges, without("is empty")),
    (too_little_memory, without("not all rows are loaded")),
    (too_little_memory, with_value(["put_away"], [])),
    (failing_start, with_value(["start"], "works")),
    (failing_start, without("the start fails")),
]


@pytest.mark.parametrize("number", range(len(PLANTED)))
def test_a_planted_fault_is_found(followed, number):
    arrange, plant = PLANTED[number]
    made, told, seen = followed(arrange)
    wrong = copy.deepcopy(told)
    plant(wrong.report)
    with pytest.raises(forecast.Deviation):
        forecast.compare(made, wrong, seen)
