"""Random sets of a schema, table files, backups and private ranges, with oddities among them."""

import dataclasses
import os
import pathlib
import random
import re
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))

import schema_text  # noqa: E402  (found by way of the line above)

TAME = ["", "a", "1", "7", "WAN", "21005", "some text"]
# What loads as something else, can't be kept, or looks as if it couldn't.
CHANGING = ["#x", "\\a", "\\*", "\\#a", "\\|", "\\\\", "*x", "\0", "a\r", "x y", "\xe4"]
CHANGING += ["b" * 31, "c" * 32, "c" * 41, "d" * 300]
REFUSED = ["*", "|", "a\\"]
ANOTHER_FILE_SYSTEM = pathlib.Path("/dev/shm")


@dataclasses.dataclass
class Table:
    name: str
    file_name: str
    lengths: list
    max_rows: int
    use_index: bool
    check_duplicates: bool
    ports: tuple  # range word, internal and external column, or nothing

    def block(self):
        return schema_text.table(
            self.name,
            [f"c{i} {length} {i % 2}" for i, length in enumerate(self.lengths)],
            self.ports or None,
            USE_INDEX=int(self.use_index),
            DUPLICATED_DATA_CHECK=int(self.check_duplicates),
            MAX_ROWS=self.max_rows,
            FILE_NAME=self.file_name,
        )

    def compared(self):
        """The columns that the check for duplicates compares."""
        if self.ports:
            return [i for i in (1, 2, 3) if i < len(self.lengths)]
        return list(range(1 if self.use_index else 0, len(self.lengths)))


class RandomSet:
    """The set of a number, in a directory of its own: set.cfg, ranges.txt, tables/ and backup/.

    Every third is plain, and the others have the oddities in turn, some with another one.
    """

    def __init__(self, number, directory):
        self.rng = rng = random.Random(number)
        self.directory = pathlib.Path(directory)
        self.files = self.directory / "tables"
        self.backups = self.directory / "backup"
        self.elsewhere = None  # a folder on another file system
        self.memory = None  # MB, if the tool is to be told
        self.allocator = "qm"
        self.oddities = []
        self.is_spoilt = False
        for folder in (self.files, self.backups):
            folder.mkdir()
        self.tables = [self.new_table(f"t{i}") for i in range(rng.randrange(1, 4))]
        is_plain = number % 3 == 0
        for table in self.tables:
            self._write_files(table, is_plain)
        self._write_ranges(is_plain)
        if not is_plain:
            turn = ODDITIES[(number - number // 3) % len(ODDITIES)]
            for oddity in dict.fromkeys([turn, *rng.choices(ODDITIES, k=rng.choice([0, 0, 1]))]):
                self.oddities.append(oddity.__name__)
                oddity(self)
        self._write_schema()

    # Paths

    @property
    def schema(self):
        return self.directory / "set.cfg"

    @property
    def ranges(self):
        return self.directory / "ranges.txt"

    def main(self, table):
        return self.files / table.file_name

    def backup(self, table):
        return self.backups / f"{table.file_name}.backup"

    def roots(self):
        return [self.files, self.backups] + ([self.elsewhere] if self.elsewhere else [])

    def remove(self):
        if self.elsewhere:
            shutil.rmtree(self.elsewhere)

    # Making

    def new_table(self, name):
        rng = self.rng
        ports = None
        count = rng.choice([1, 2, 3, 4, 9])
        if rng.random() < 0.25:
            count = rng.choice([8, 9, 10])
            ports = (rng.choice(["dynamic", "static"]), 3, 4)
        lengths = [rng.choice([5, 10, 31, 31, 40]) for _ in range(count)]
        use_index = rng.random() < 0.3
        if use_index:
            lengths[0] = 10
        check = rng.random() < 0.5
        return Table(name, f"{name}.tbl", lengths, rng.choice([3, 100]), use_index, check, ports)

    def _write_schema(self):
        blocks = [table.block() for table in self.tables]
        text = schema_text.schema(f"{self.files}/", f"{self.backups}/", blocks)
        if self.is_spoilt:
            text = "\n".join(self._spoilt(text.split("\n")[:-1])) + "\n"
        self.schema.write_bytes(text.encode("latin-1"))

    def _spoilt(self, lines):
        """The lines with one of them taken out, doubled, moved or changed."""
        rng = self.rng
        at, to = rng.randrange(len(lines)), rng.randrange(len(lines))
        line = lines.pop(at)
        # A directory that is cut would lead out of the set's own.
        kind = rng.randrange(4 if line.startswith("BASE_") else 5)
        if kind == 1:
            lines[at:at] = [line, line]
        elif kind == 2:
            lines.insert(to, line)
        elif kind == 3:
            values = ["", "0", "1", "2", "x" * 300, "4294967297", "-1"]
            lines.insert(at, re.sub(r"=.*", "=" + rng.choice(values), line))
        elif kind == 4:
            lines.insert(at, line[: rng.randrange(len(line) + 1)])
        return lines

    def _write_files(self, table, is_plain):
        rng = self.rng
        for path, chance in ((self.main(table), 0.9), (self.backup(table), 0.5)):
            if rng.random() < chance:
                path.write_bytes(self.text(table, is_plain or rng.random() < 0.4))

    def text(self, table, is_plain, count=None):
        """A table file's text; a plain one is clean as long as the table has room for it."""
        rng = self.rng
        first, end = "Version 1", "\n"
        if not is_plain:
            first = rng.choice([first] * 15 + ["Version 1\r", "", "Version 1\0x"])
            end = rng.choice(["\n"] * 15 + [""])
        count = rng.randrange(7) if count is None else count
        rows = [self.new_row(table, number, is_plain) for number in range(count)]
        text = "\n".join([first, *rows]) + end
        return (text if is_plain or rng.random() < 0.97 else "").encode("latin-1")

    def new_row(self, table, number, is_plain):
        rng = self.rng
        if is_plain:
            fields = [f"v{number}"] * len(table.lengths)
            if table.ports:
                fields[3:6] = [str(21000 + number), str(9000 + number), "WAN"]
                if table.ports[0] == "dynamic":
                    fields[4] = str(10000 + number)
                # Each table has ports of its own.
                fields[3] = str(21000 + number + 20 * int(table.name[1:]))
        else:
            width = len(table.lengths) if rng.random() < 0.98 else rng.randrange(1, 12)
            fields = [self._field(number) for _ in range(width)]
        if table.use_index and (is_plain or rng.random() < 0.9):
            fields[0] = str(number + 1)
        return "|".join(fields)

    def _field(self, number):
        (words,) = self.rng.choices(
            [[f"v{number % 3}"], TAME, CHANGING, REFUSED], weights=[60, 20, 19, 1]
        )
        return self.rng.choice(words)

    def _write_ranges(self, is_plain):
        rng = self.rng
        lines = ["INT 21200 21201 21202", "EXT 14000 14001", "STATIC_INT 21200 21201"]
        if not is_plain:
            odd = ["WEB 1 2", "", f"{'W' * 60} 240 241", "INT 21240 x 21241", "EXT 9999 14002"]
            odd += ["INT 21200 21203", "STATIC_EXT", "INT 21210 -1 21211"]
            odd += ["EXT " + " ".join(str(14100 + i) for i in range(11))]
            lines += rng.sample(odd, rng.randrange(4))
            rng.shuffle(lines)
        self.ranges.write_text("".join(line + "\n" for line in lines[rng.randrange(len(lines)) :]))


# Oddities


def spoilt_schema(made):
    made.is_spoilt = True


def one_name(made):
    """A second table of the first one's name, with as many columns, more or less."""
    other = made.new_table("t9")
    other.name = made.tables[0].name
    made.tables.append(other)
    _put(made.main(other), made.text(other, True, 2))


def one_file(made):
    """A second table whose file is the first one's, under the same name or another."""
    first = made.tables[0]
    other = made.new_table("t8")
    how = made.rng.choice(["./{}", "{}", "sub/../{}", "{}.refused", "../backup/{}.backup"])
    if how.startswith("sub"):
        for folder in (made.files, made.backups):
            (folder / "sub").mkdir(exist_ok=True)
    other.file_name = how.format(first.file_name)
    if made.rng.random() < 0.5:
        other.lengths = list(first.lengths)
    made.tables.append(other)


def no_folder(made):
    made.tables[-1].file_name = "sub/" + made.tables[-1].file_name


def a_directorys_name(made):
    made.tables[-1].file_name = made.rng.choice(["sub/", ".", "sub"])
    (made.files / "sub").mkdir(exist_ok=True)


def no_backup_folder(made):
    made.backups = made.directory / "gone"


def backups_elsewhere(made):
    if ANOTHER_FILE_SYSTEM.is_dir():
        made.backups = made.elsewhere = ANOTHER_FILE_SYSTEM / made.directory.name
        made.elsewhere.mkdir()


def _clear(path):
    if path.is_symlink() or path.exists() and not path.is_dir():
        path.unlink()


def _place(path, make):
    """Makes something in a file's place, unless an oddity before has taken that."""
    if path.parent.is_dir() and not (path.is_dir() and not path.is_symlink()):
        _clear(path)
        make(path)


def _put(path, text):
    _place(path, lambda free: free.write_bytes(text))


def linked_file(made):
    table = made.tables[0]
    target = made.files / "target"
    target.write_bytes(made.text(table, made.rng.random() < 0.5))
    to = made.rng.choice([target, "target", "nowhere"])
    _place(made.main(table), lambda path: path.symlink_to(to))


def linked_backup(made):
    table = made.tables[0]
    _place(made.backup(table), lambda path: path.symlink_to("nowhere"))
    if made.rng.random() < 0.5:
        _clear(made.main(table))


def directory_for_a_file(made):
    table = made.tables[0]
    path = made.rng.choice([made.main, made.backup])(table)
    _place(path, pathlib.Path.mkdir)
    if path.is_dir() and made.rng.random() < 0.5:
        (path / "inside").touch()
    if path == made.backup(table) and made.rng.random() < 0.5:
        _clear(made.main(table))


def pipe_for_a_file(made):
    _place(made.main(made.tables[0]), os.mkfifo)


def empty_device(made):
    _place(made.main(made.tables[0]), lambda path: path.symlink_to("/dev/null"))


def one_inode(made):
    table = made.tables[0]
    _put(made.main(table), made.text(table, True))
    if made.backups == made.directory / "backup" and made.main(table).is_file():
        _place(made.backup(table), lambda path: os.link(made.main(table), path))


def bad_files(made):
    for table in made.tables:
        if made.rng.random() < 0.6:
            _put(made.main(table), made.text(table, True, 2) + b"a|row|too|many|or|few|x|y|z|z\n")
        if made.rng.random() < 0.6:
            _put(made.backup(table), b"Version 0\n")


def refused_before(made):
    """Something stands where a bad file is set aside."""
    bad_files(made)
    aside = pathlib.Path(f"{made.main(made.tables[0])}.refused")
    if made.rng.random() < 0.5:
        _place(aside, pathlib.Path.mkdir)
    else:
        _put(aside, b"older")


def odd_limits(made):
    made.tables[0].max_rows = made.rng.choice([0, -1, 1, 4294967297, 2147483647])


def short_columns(made):
    table = made.tables[0]
    table.lengths = [made.rng.choice([0, 1, 2, 3, 4]) for _ in table.lengths]


def escapes(made):
    """Rows that load, some of which can't be stored as they are."""
    table = made.tables[0]
    if len(table.lengths) < 2:
        return
    rows = [["v"] * len(table.lengths) for _ in range(3)]
    for row in rows:
        row[1] = made.rng.choice(["a\\|b", "\\*", "a\\b", "a\\\\b", "plain", "\\#c"])
        row[0] = made.rng.choice(["1", "\\#d", "2"])
    text = "".join("|".join(row) + "\n" for row in rows)
    _put(made.main(table), f"Version 1\n{text}".encode())


def equal_rows(made):
    table = made.tables[0]
    table.check_duplicates = True
    rows = [made.new_row(table, made.rng.randrange(3), True) for _ in range(8)]
    table.max_rows = 100
    text = "".join(row + "\n" for row in rows)
    _put(made.main(table), f"Version 1\n{text}".encode())


def one_oddity_in_each_row(made):
    table = made.tables[0]
    rows = [made.new_row(table, number, True) + "\r" for number in range(3)]
    _put(made.main(table), ("\n".join(["Version 1", *rows]) + "\n").encode())


def many_rows(made, counts=(100, 1500)):
    made.memory = made.rng.choice([2, 3])
    made.allocator = made.rng.choice(["qm", "fm", "tlsf"])
    table = made.tables[0]
    table.max_rows = 10**6
    table.check_duplicates = False
    count = made.rng.choice(counts)
    row = made.new_row(table, 1, True)
    _put(made.main(table), ("Version 1\n" + (row + "\n") * count).encode())


def too_many_rows(made):
    """More than fit into the server's memory."""
    many_rows(made, (30_000, 60_000))


ODDITIES = [
    spoilt_schema,
    spoilt_schema,
    spoilt_schema,
    one_name,
    one_file,
    no_folder,
    a_directorys_name,
    no_backup_folder,
    backups_elsewhere,
    linked_file,
    linked_backup,
    directory_for_a_file,
    pipe_for_a_file,
    empty_device,
    one_inode,
    bad_files,
    refused_before,
    odd_limits,
    short_columns,
    escapes,
    equal_rows,
    one_oddity_in_each_row,
    many_rows,
    too_many_rows,
]
