"""What the file rules make of a table's two files, told apart from the module's own code."""

import dataclasses

HEAD = b"Version 1\n"


@dataclasses.dataclass(frozen=True)
class Loaded:
    rows: list  # of tuples of fields, oldest first
    source: str  # "main", "backup" or "none"
    complaints: list  # the error lines that end in a refusal


def parse(table, columns, raw):
    """The rows of a file's bytes, or None and the complaint (None for an empty file)."""
    if not raw:
        return None, None
    lines = raw.decode("utf-8", "replace").split("\n")
    if lines[-1] == "":
        lines.pop()
    if lines[0] != "Version 1":
        return None, (
            "Wrong database version. Current DB: Version 1, Prensent on File: " + lines[0] + "\n"
        )
    rows = []
    for line in lines[1:]:
        if not line or line.startswith("#"):
            continue
        fields = tuple(line.split("|"))
        if len(fields) != columns:
            return None, f"Could not parse '{table},{line}'\n"
        rows.append(fields)
    return rows, None


def load(table, columns, main, backup):
    """The load of a table from its files' bytes, None for a file that isn't there."""
    complaints = []
    for source, raw in (("main", main), ("backup", backup)):
        if raw is None:
            continue
        rows, complaint = parse(table, columns, raw)
        if rows is not None:
            return Loaded(rows, source, complaints)
        if complaint:
            complaints.append(complaint)
    return Loaded([], "none", complaints)


def files_after(loaded, main, backup):
    """What a load leaves of the files in their places: those that it found bad are set aside."""
    if loaded.source == "main":
        return main, backup
    return None, backup if loaded.source == "backup" else None


def refused_after(loaded, main, backup, refused):
    """What there is of refused files after a load: bad ones take the places of older ones."""
    bad_main = main is not None and loaded.source != "main"
    bad_backup = backup is not None and loaded.source == "none"
    return main if bad_main else refused[0], backup if bad_backup else refused[1]


def text(rows):
    """The file that holds some rows."""
    return HEAD + b"".join("|".join(row).encode() + b"\n" for row in rows)


def read(path):
    try:
        return path.read_bytes()
    except FileNotFoundError:
        return None
