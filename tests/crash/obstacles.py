"""Disks without space, directories that can't be written, and table files that aren't files.

Each case has a server store and load against an obstacle, looks at what it says and keeps, takes
the obstacle away and waits for the store that makes good.
"""

import concurrent.futures
import contextlib

import load
import site_servers as site
import table_model
from module_host import Call, Table, columns

SPACE = Table("space", columns("number", "text"), max_rows=2000)
CALLS = {"insert": Call('tarn_memdb_insert("space,$hdr(X-Q)")')}
PAGE = 4096


def rows(count):
    return [(str(number), load.filler(number)[:31]) for number in range(count)]


def text(count):
    return table_model.text(rows(count))


# One reply over the control socket carries about a thousand of these rows.
MANY, FEW = 650, 3
assert len(text(MANY)) > 4 * PAGE and len(text(FEW)) < PAGE


class Obstacle:
    """A server with one table, and what it should have in memory."""

    def __init__(self, made, count):
        self.made = made
        self.count = count
        self.main = made.main_file("space")
        self.backup = made.backup_file("space")
        self.taken = made.files / "taken"  # fills the disk, where there is too little

    def start(self, complaints=()):
        self.made.start()
        self.check_rows()
        site.check(site.complaints(self.made) == list(complaints), site.complaints(self.made))

    def insert(self):
        row = rows(self.count + 1)[-1]
        site.check(self.made.call("insert", "|".join(row)).rc > 0, "the insert failed")
        self.count += 1

    def outgrow(self):
        """Adds what doesn't fit even once a partial file has replaced a whole backup."""
        while len(text(self.count)) < len(text(MANY)) + 2 * PAGE:
            self.insert()

    def check_rows(self):
        found = site.select(self.made, "space")
        site.check(found == rows(self.count), "the table holds", len(found), "rows of", self.count)

    def errors(self):
        return self.made.said("ERROR")

    def failed_stores(self):
        return self.errors().count("Could not store table 'space' to file 'space.tbl'\n")

    def fails(self, line, path=None):
        """Waits for two passes of the timer to fail, each with its two lines."""
        expected = [f"{line} '{path or self.main}'\n"]
        expected.append("Could not store table 'space' to file 'space.tbl'\n")
        before = len(self.errors()) // 2 * 2  # a pass writes both of its lines or none
        site.until(lambda: len(self.errors()) >= before + 4, f"two failures with {line}")
        site.check(self.errors()[before : before + 4] == expected * 2, self.errors()[before:])
        site.check(site.rpc_host.info(self.made, "space")["State"] == "1", "the state changed")
        self.check_rows()

    def stores(self):
        """Waits for the table to be stored whole, and for no further complaint."""
        site.until(lambda: table_model.read(self.main) == text(self.count), "a whole main file")
        site.until(
            lambda: site.rpc_host.info(self.made, "space")["State"] == "0", "the unchanged state"
        )

    def end(self):
        site.check(self.made.stop() == 0, "the stop failed")
        site.check_sound(self.made)


@contextlib.contextmanager
def obstacle(count):
    """The server isn't started; its main file has the first rows."""
    with site.server(
        tables=[SPACE], calls=CALLS, params={"store_tbl_interval": 1}, memory=32
    ) as made:
        case = Obstacle(made, count)
        case.main.write_bytes(text(count))
        yield case


def fill(path, leaving):
    """Takes all space but some pages."""
    with open(path, "wb", buffering=0) as taken, contextlib.suppress(OSError):
        while True:
            taken.write(b"\0" * PAGE)
    with open(path, "r+b") as taken:
        taken.truncate(path.stat().st_size // PAGE * PAGE - leaving * PAGE)


@contextlib.contextmanager
def full_disk(count, leaving):
    """Tables and backups on a disk of their own, with little space left."""
    with site.server(
        tables=[SPACE], calls=CALLS, params={"store_tbl_interval": 1}, memory=32
    ) as made, site.small_disk(made.directory / "tables", "256k"):
        made.backups = made.files / "backup"
        made.backups.mkdir()
        case = Obstacle(made, count)
        case.main.write_bytes(text(count))
        fill(case.taken, leaving)
        yield case
        made.kill()


def no_space_in_mid_store():
    with full_disk(MANY, leaving=1) as case:
        case.start()
        case.outgrow()
        case.fails("Could not write to file")
        # By now the partial file has gone over the good backup.
        files = site.files(case.made, "space")
        for raw in files:
            whole = text(case.count)
            site.check(whole.startswith(raw) and len(raw) < len(whole), "a file isn't cut")
        case.taken.unlink()
        case.stores()
        case.end()
        rotated = case.backup.read_bytes()
        site.check(rotated != whole and whole.startswith(rotated), "the backup is no cut file")


def killed_without_space():
    with full_disk(MANY, leaving=1) as case:
        case.start()
        case.outgrow()
        case.fails("Could not write to file")
        case.made.kill()
        files = site.files(case.made, "space")
        expected = site.Expected(case.made, "space")
        loaded = expected.loaded
        site.check(loaded.source != "none" or loaded.complaints or b"" in files, "no file left")
        case.made.start()
        expected.check_log(case.made, [expected])
        found = site.select(case.made, "space")
        site.check(found == loaded.rows, "loaded", len(found), "expected", len(loaded.rows))
        case.end()
        expected.check_files("though unchanged")


def no_space_for_the_tail():
    """What fails at the last flush alone is not seen; the generation before is behind it."""
    with full_disk(FEW, leaving=0) as case:
        case.start()
        case.insert()
        site.until(case.backup.exists, "a store")
        site.until(lambda: site.rpc_host.info(case.made, "space")["State"] == "0", "its end")
        site.check(case.errors() == [], case.errors())
        case.made.kill()
        site.check(site.files(case.made, "space") == (b"", text(FEW)), "other files than expected")
        case.count = FEW
        case.start()
        case.taken.unlink()
        case.insert()
        case.stores()
        case.end()


def read_only_tables():
    with obstacle(FEW) as case:
        with site.read_only(case.made.files):
            case.start()
            case.insert()
            case.fails("Could not open file")
            site.check(site.files(case.made, "space") == (text(FEW), None), "files were touched")
        case.stores()
        case.end()


def read_only_backups():
    with obstacle(FEW) as case:
        case.backup.write_bytes(text(1))
        with site.read_only(case.made.backups):
            case.start()
            case.insert()
            case.stores()
            site.check(case.errors() == [], case.errors())
            site.check(case.backup.read_bytes() == text(1), "the old backup didn't stay")
        case.insert()
        case.stores()
        site.check(case.backup.read_bytes() == text(FEW + 1), "no backup of the generation before")
        case.end()


def read_only_at_a_start_with_a_bad_file():
    with obstacle(FEW) as case:
        case.main.write_bytes(b"Version 2\n")
        case.backup.write_bytes(text(FEW))
        refusal = "Wrong database version. Current DB: Version 1, Prensent on File: Version 2\n"
        with site.read_only(case.made.files), site.read_only(case.made.backups):
            case.start([refusal])
            site.check(site.set_aside(case.made) == [], "told that it was set aside")
        case.end()
        site.check(site.files(case.made, "space") == (b"Version 2\n", text(FEW)), "files touched")


def refused_files_place_a_directory():
    """What can't be set aside is removed, since the table's next file needs the place."""
    with obstacle(FEW) as case:
        case.backup.write_bytes(text(FEW))
        case.main.write_bytes(b"Version 2\n")
        place = case.made.refused_file("space")
        place.mkdir()
        (place / "inside").touch()
        case.start(["Wrong database version. Current DB: Version 1, Prensent on File: Version 2\n"])
        site.check(site.set_aside(case.made) == [], "told that it was set aside")
        site.check(not case.main.exists(), "the bad file stayed")
        case.insert()
        case.stores()
        case.end()


def refused_files_place_a_link():
    """The link gives way, and what it leads to stays."""
    with obstacle(FEW) as case:
        case.backup.write_bytes(text(FEW))
        case.main.write_bytes(b"Version 2\n")
        target = case.made.directory / "target"
        target.write_bytes(b"kept")
        case.made.refused_file("space").symlink_to(target)
        expected = site.Expected(case.made, "space")
        case.start(expected.loaded.complaints)
        expected.check_log(case.made, [expected])
        site.check(target.read_bytes() == b"kept", "the link's target was written")
        site.check(not case.made.refused_file("space").is_symlink(), "the link stayed")
        site.check(site.refused(case.made, "space")[0] == b"Version 2\n", "not set aside")
        case.end()


def main_file_a_link_to_a_bad_file():
    """A link isn't the text itself: it goes, and the text stays where it is."""
    with obstacle(FEW) as case:
        case.main.rename(case.backup)
        target = case.made.directory / "target"
        target.write_bytes(b"Version 2\n")
        case.main.symlink_to(target)
        case.start(["Wrong database version. Current DB: Version 1, Prensent on File: Version 2\n"])
        site.check(not case.main.is_symlink(), "the link stayed")
        site.check(target.read_bytes() == b"Version 2\n", "the link's target was touched")
        site.check(site.refused(case.made, "space") == (None, None), "something was set aside")
        case.insert()
        case.stores()
        case.end()


def read_only_at_a_clear():
    with obstacle(FEW) as case:
        case.backup.write_bytes(text(1))
        with site.read_only(case.made.files):
            case.start()
            site.rpc_host.lines(case.made, "clear_tbl", "space")
            site.until(lambda: case.failed_stores() >= 2, "two failed clears")
            first = [f"Could not open file '{case.main}'\n"]
            site.check(case.errors()[:1] == first, case.errors())
            site.check(site.rpc_host.info(case.made, "space")["State"] == "2", "another state")
            site.check(site.files(case.made, "space") == (text(FEW), text(1)), "files were touched")
        head = table_model.HEAD
        site.until(lambda: site.files(case.made, "space") == (head, head), "both files cleared")
        case.end()


def main_file_a_directory():
    with obstacle(FEW) as case:
        case.main.rename(case.backup)
        case.main.mkdir()
        (case.main / "inside").touch()
        case.start()
        case.insert()
        case.fails("Could not open file")
        site.check(case.backup.read_bytes() == text(FEW), "the backup was touched")
        (case.main / "inside").unlink()
        case.main.rmdir()
        case.stores()
        site.check(case.backup.read_bytes() == text(FEW), "the backup didn't stay")
        case.end()


def main_file_an_empty_directory():
    """A load removes what is bad, and an empty directory can be removed."""
    with obstacle(FEW) as case:
        case.main.rename(case.backup)
        case.main.mkdir()
        case.start()
        site.check(not case.main.exists(), "the directory stayed")
        case.insert()
        case.stores()
        case.end()


def backup_file_a_directory():
    with obstacle(FEW) as case:
        case.backup.mkdir()
        (case.backup / "inside").touch()
        case.start()
        case.insert()
        case.stores()
        site.check(case.errors() == [], case.errors())
        (case.backup / "inside").unlink()
        case.backup.rmdir()
        case.insert()
        case.stores()
        site.check(case.backup.read_bytes() == text(FEW + 1), "no backup once there can be one")
        case.end()


def files_that_are_links():
    """A load follows a link, a store moves it: what it leads to is never written."""
    with obstacle(FEW) as case:
        target = case.made.directory / "target"
        case.main.rename(target)
        case.main.symlink_to(target)
        case.backup.symlink_to(case.made.directory / "nowhere")
        case.start()
        case.insert()
        case.stores()
        site.check(not case.main.is_symlink() and case.backup.is_symlink(), "the link didn't move")
        site.check(target.read_bytes() == text(FEW), "the link's target was written")
        case.end()


def main_file_a_dangling_link():
    with obstacle(FEW) as case:
        case.main.rename(case.backup)
        case.main.symlink_to(case.made.directory / "nowhere")
        case.start()
        site.check(not case.main.is_symlink(), "the link stayed")
        case.insert()
        case.stores()
        case.end()


def main_file_an_empty_device():
    with obstacle(FEW) as case:
        case.main.rename(case.backup)
        case.main.symlink_to("/dev/null")
        case.start()
        site.check(not case.main.is_symlink(), "the link stayed")
        case.insert()
        case.stores()
        case.end()


def main_file_a_full_device():
    """It stays where it is as long as the backup's place is taken."""
    with obstacle(MANY) as case:
        case.backup.mkdir()
        (case.backup / "inside").touch()
        case.start()
        case.main.unlink()
        case.main.symlink_to("/dev/full")
        case.insert()
        case.fails("Could not write to file")
        case.main.unlink()
        case.stores()
        case.end()


CASES = (
    no_space_in_mid_store,
    killed_without_space,
    no_space_for_the_tail,
    read_only_tables,
    read_only_backups,
    read_only_at_a_start_with_a_bad_file,
    refused_files_place_a_directory,
    refused_files_place_a_link,
    main_file_a_link_to_a_bad_file,
    read_only_at_a_clear,
    main_file_a_directory,
    main_file_an_empty_directory,
    backup_file_a_directory,
    files_that_are_links,
    main_file_a_dangling_link,
    main_file_an_empty_device,
    main_file_a_full_device,
)


def run(lanes):
    # Processes, as a case waits for the timer most of its time.
    with concurrent.futures.ProcessPoolExecutor(lanes) as pool:
        list(pool.map(_run_case, range(len(CASES))))
    return f"{len(CASES)} obstacles to files met as designed"


def _run_case(number):
    case = CASES[number]
    try:
        case()
    except AssertionError as trouble:
        raise site.Deviation(f"{case.__name__}: {trouble}") from trouble
