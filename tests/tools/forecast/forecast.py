"""What tarn-memdb-check tells of a set, held against what a server made of it."""

import collections
import json
import os
import re
import subprocess

import host_start


class Deviation(AssertionError):
    """The tool told something else than what happened."""


def check(fine, *told):
    if not fine:
        raise Deviation(" ".join(str(part) for part in told))


class Told:
    """The tool's report on a set, and the texts that its files had then, as look() puts them."""

    def __init__(self, made):
        self.before = {}
        command = [os.environ["TARN_CHECK"], "--json", "--allocator", made.allocator]
        if made.memory:
            command += ["--memory", str(made.memory)]
        command += [str(made.schema), str(made.ranges)]
        ran = subprocess.run(
            command, check=False, capture_output=True, timeout=60, cwd=made.directory
        )
        check(ran.returncode in (0, 1), "the tool ended with", ran.returncode, ran.stderr)
        self.status = ran.returncode
        self.report = json.loads(ran.stdout)

    @property
    def findings(self):
        return self.report["findings"]

    @property
    def start(self):
        return self.report["start"]

    @property
    def tables(self):
        return self.report["tables"]

    def texts(self, file=None):
        return [found["text"] for found in self.findings if file in (None, found["file"])]

    def says(self, part):
        return any(part in text for text in self.texts())

    def on_places_of(self, table):
        """What is told of where the table's files are."""
        about = [f"table '{table['table']}'", f"'{table['file']}'", f"'{table['backup']}'"]
        about += [f"'{os.path.dirname(table[file])}/'" for file in ("file", "backup")]
        return [text for text in self.texts() if any(part in text for part in about)]

    def names(self):
        """Names that lead to a table: of two with one name, to the first."""
        names = [table["table"] for table in self.tables]
        return [name for name in dict.fromkeys(names) if re.fullmatch(r"\w+", name)]

    def table(self, name):
        return next(table for table in self.tables if table["table"] == name)


def path_of(made, path):
    """The entry that a path names to a server in the set's directory, its folder without links."""
    folder, name = os.path.split(made.directory / path)
    return os.path.join(os.path.realpath(folder), name)


def compare(made, told, seen):
    """Raises Deviation, or gives the kind of set that it was."""
    clean = told.report["clean"]
    check(clean == (told.status == 0) == (not told.findings), "clean, status and findings differ")
    if told.start == "unknown":
        is_known = told.says("is a device") or told.says("than the whole file can hold")
        check(is_known, "knows nothing")
        return "unknown"
    if is_short_of_memory(told):
        return compare_short_memory(made, told, seen)
    check(seen.start == told.start, "the start", seen.start, "and was told as", told.start)
    if seen.start == "hangs":
        return "hangs"
    compare_disk(made, told, seen)
    if seen.start == "fails":
        check(told.says("the start fails: "), "nothing tells of the start")
        return "start fails"
    compare_ranges(made, told, seen)
    for name in seen.tables:
        compare_table(made, told, seen, name)
    if told.report["put_away"]:
        return "put away"
    return "clean" if clean else "other findings"


# Memory


def is_short_of_memory(told):
    """True if the server's own share decides what fits."""
    memory = told.report.get("memory")
    return memory is not None and memory["bytes_at_start"] + (1 << 20) > memory["bytes"]


def compare_short_memory(made, told, seen):
    memory = told.report["memory"]
    if memory["bytes_at_start"] <= memory["bytes"]:
        check(told.says("the tables leave ") or told.says(": not all rows"), "nothing on memory")
        return "little memory"
    check(told.says(": not all rows are loaded"), "nothing on memory")
    for moved in told.report["put_away"]:
        gone = path_of(made, moved["file"])
        check(gone not in seen.after, gone, "was told to go and is there")
    check(told.report["put_away"], "rows don't fit, and all files stay")
    return "too little memory"


# Files


def compare_disk(made, told, seen):
    expected = dict(seen.before)
    for moved in told.report["put_away"]:
        text = expected.pop(path_of(made, moved["file"]), None)
        check(text is not None, moved["file"], "was told to go and was never there")
        if moved["to"]:
            expected[path_of(made, moved["to"])] = text
    gone = expected.keys() - seen.after.keys()
    more = seen.after.keys() - expected.keys()
    check(not gone, "gone without a word:", sorted(gone))
    check(not more, "was told to go and is there:", sorted(more))
    for path, text in expected.items():
        check(seen.after[path] == text, path, "has changed")


def compare_table(made, told, seen, name):
    expected, found = told.table(name), seen.tables[name]
    if expected["rows"] is None:
        return
    check(found.rows == expected["rows"], name, "has", found.rows, "rows of", expected["rows"])
    is_full = found.rows == found.max_rows
    check(not (found.was_inserted and is_full), name, "is full and took a row")
    if not made.is_spoilt:
        compare_equal_rows(made, told, expected, name)
    if told.says("each store overwrites the other") or told.says(" goes if it can't be loaded"):
        return
    compare_store(told, expected, found)
    if told.report["clean"]:
        has_key = not made.is_spoilt and table_of(made, name).compared()
        check(found.was_inserted or is_full or not has_key, name, "is clean and took no row")


def compare_store(told, expected, found):
    """What a store made of the row that was added, and of the text that was there."""
    main = expected["file"]
    on_places = told.on_places_of(expected)
    never = [
        text
        for text in on_places
        if "is never stored" in text or "is lost at a restart" in text or "without a name" in text
    ]
    if not found.was_inserted:
        return
    if any(text.startswith("stays where it is") for text in told.texts(main)):
        return
    if never:
        check(found.main is None, main, "was told never to be stored")
        return
    check(found.main is not None, main, "wasn't stored")
    lines = found.main.split(b"\n")
    check(lines[0] == b"Version 1" and lines[-1] == b"", main, "was stored cut")
    rows = lines[1:-1]
    check(len(rows) == expected["rows"] + 1, main, "has", len(rows), "rows after a store")
    compare_rows(told, expected, rows[:-1])
    if expected["loaded_from"] == main:
        compare_backup(told, expected, found, on_places)


def compare_backup(told, expected, found, on_places):
    """The text that was loaded is the backup now, or else it was told that there is none."""
    old = before_text(told, expected["file"])
    if old is None:
        return
    no_backup = [
        text
        for text in on_places
        if re.search("no backup (of|is)|has no backup|is a link: the next store", text)
    ]
    if not no_backup:
        check(found.backup == old, expected["backup"], "isn't what the main file was")
    elif not any("is a link" in text for text in no_backup) and found.backup is not None:
        check(found.backup != old, expected["backup"], "was told not to be made")


def before_text(told, path):
    return told.before.get(path)


# Rows

CHANGES = "the row loads changed"
EVERY = re.compile(r"in each of the (\d+) rows from here on: (.*)", re.DOTALL)
LIKEWISE = re.compile(r"likewise in (\d+) more rows up to here: (.*)", re.DOTALL)


def compare_rows(told, expected, rows):
    """Each line that isn't a row as it stands has a finding, and what is told of rows is so."""
    source = expected["loaded_from"]
    text = before_text(told, source) if source else None
    if text is None:
        return
    found = collections.defaultdict(list)
    every, after = [], {}
    for one in told.findings:
        if one["file"] != source or one["line"] == 0:
            continue
        if whole := EVERY.match(one["text"]):
            every.append(whole[2])
        elif more := LIKEWISE.match(one["text"]):
            after[one["line"]] = more[2]
        else:
            found[one["line"]].append(one["text"])
    loaded = iter(rows)
    lines = text.split(b"\n")[1:]
    if lines and lines[-1] == b"":
        lines.pop()
    for number, line in enumerate(lines, start=2):
        if not line:
            continue
        texts = found[number] + every + [t for last, t in after.items() if number <= last]
        if line[:1] in (b"#", b"\0"):
            check(texts, "line", number, "of", source, "is lost without a word")
            continue
        row = next(loaded, None)
        check(row is not None, "line", number, "of", source, "wasn't loaded")
        check(row == line or texts, "line", number, "of", source, "loads as", row)
        for told_text in found[number] + every:
            if told_text.startswith(CHANGES):
                check(row != line, "line", number, "of", source, "loads as it stands")
    check(next(loaded, None) is None, source, "has fewer lines than the table rows")


def table_of(made, name):
    return next(table for table in made.tables if table.name == name)


def compare_equal_rows(made, told, expected, name):
    """Rows of short plain values are equal if they are so in the columns that are compared."""
    table, source = table_of(made, name), expected["loaded_from"]
    text = before_text(told, source) if source else None
    if text is None or not table.check_duplicates or b"\\" in text or b"\0" in text:
        return
    first, equal = {}, {}
    for number, line in enumerate(text.split(b"\n")[1:], start=2):
        fields = line.split(b"|")
        if not line or line[:1] == b"#":
            continue
        widths = zip(fields, table.lengths, strict=False)
        if any(len(field) > min(31, length) for field, length in widths):
            return
        key = tuple(fields[i] for i in table.compared())
        if key in first:
            equal[number] = first[key]
        first.setdefault(key, number)
    told_equal = {}
    for one in told.findings:
        same = re.match(r"counts as equal to the row of line (\d+)", one["text"])
        if same and one["file"] == source:
            told_equal[one["line"]] = int(same[1])
    check(told_equal == equal, source, "has equal rows", equal, "and told are", told_equal)


# Private ranges


def compare_ranges(made, told, seen):
    """A line that nothing is said of is a range as it stands, and each but the skipped is one."""
    file = str(made.ranges)
    told_lines = collections.defaultdict(list)
    for one in told.findings:
        if one["file"] == file:
            told_lines[one["line"]].append(one["text"])
    lines = made.ranges.read_text().split("\n")[:-1]
    count = 0
    for number, line in enumerate(lines, start=1):
        texts = told_lines[number]
        count += not any("is skipped" in text for text in texts)
        if not texts:
            check(line.split(), file, number, "is no range, and nothing is said of it")
            word, *ports = line.split()
            listed = seen.ranges.get(word, [])
            check([int(port) for port in ports] in listed, file, number, "isn't listed:", listed)
    listed = sum(len(ranges) for ranges in seen.ranges.values())
    check(listed == count, file, "gives", listed, "ranges, and told are", count)


def look(made):
    """What the tool tells of the set, with the texts that the files have meanwhile."""
    told = Told(made)
    away = {moved["to"] for moved in told.report["put_away"]}
    for table in told.tables:
        for path in (table["file"], table["backup"]):
            # What is moved into a path on the way is another text.
            if path not in away and (made.directory / path).is_file():
                told.before[path] = (made.directory / path).read_bytes()
    return told


def follow(made):
    """Looks, starts, compares; gives the kind of the set, what was told and what was seen."""
    told = look(made)
    tables = {
        name: [made.directory / told.table(name)[file] for file in ("file", "backup")]
        for name in told.names()
    }
    seen = host_start.watch(made, tables, expects_hang=told.start == "hangs")
    return compare(made, told, seen), told, seen
