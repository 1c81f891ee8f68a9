"""A directory with a schema and its files, and tarn-memdb-check run on it."""

import dataclasses
import hashlib
import json
import os
import pathlib
import re
import resource
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

import schema_text  # noqa: E402  (found by way of the line above)

CHECK = os.environ.get("TARN_CHECK", "")
PROBE = os.environ.get("TARN_PROBE", "")


@dataclasses.dataclass(frozen=True)
class Finding:
    file: str  # relative to the directory
    line: int  # 0 for the file as a whole
    severity: str
    text: str


@dataclasses.dataclass(frozen=True)
class Outcome:
    status: int
    out: str
    err: str
    findings: tuple

    def has(self, file, line, severity, part):
        return any(
            (found.file, found.line, found.severity) == (file, line, severity)
            and part in found.text
            for found in self.findings
        )


@dataclasses.dataclass(frozen=True)
class Loaded:
    main: str
    backup: str
    rows: list


class CheckFiles:
    def __init__(self, directory):
        self.directory = directory
        (directory / "tables").mkdir()
        (directory / "backup").mkdir()

    def write(self, name, text):
        data = text if isinstance(text, bytes) else text.encode("latin-1")
        (self.directory / name).write_bytes(data)
        return self

    def schema(self, *blocks, num_table=None):
        """The schema of these blocks; the head takes the first three lines."""
        count = len(blocks) if num_table is None else num_table
        return self.write("schema.cfg", self.head(count) + "".join(blocks))

    def head(self, count):
        return schema_text.head(f"{self.directory}/tables/", f"{self.directory}/backup/", count)

    def rows(self, table, *rows, backup=False):
        text = "".join(line + "\n" for line in ("Version 1", *rows))
        return self.write(self.file(table, backup), text)

    @staticmethod
    def file(table, backup=False):
        return f"backup/{table}.tbl.backup" if backup else f"tables/{table}.tbl"

    def state(self):
        """Everything by which a touched directory would differ."""
        found = {}
        for path in sorted([self.directory, *self.directory.rglob("*")]):
            status = path.lstat()
            content = hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else ""
            found[str(path)] = (content, status.st_mtime_ns, status.st_ino, status.st_mode)
        return found

    def check(self, *arguments, ranges=False, options=(), **how):
        """Runs the tool, and sees to it that it changes nothing."""
        files = arguments or ("schema.cfg", *(["ranges.txt"] if ranges else []))
        before = self.state()
        names = [str(self.directory / name) for name in files]
        ran = run(*options, *names, cwd=self.directory, **how)
        assert self.state() == before, "the tool changed something"
        return Outcome(ran.returncode, ran.stdout, ran.stderr, tuple(self.findings(ran.stdout)))

    def findings(self, out):
        for line in out.splitlines():
            found = re.fullmatch(r"(.+?):(?:(\d+):)? (error|warning): (.*)", line)
            if found:
                file, number, severity, text = found.groups()
                yield Finding(self.relative(file), int(number or 0), severity, text)

    def relative(self, path):
        return path.replace(f"{self.directory}/", "", 1)

    def start(self):
        """Loads all as a start does: None if that fails, or a Loaded for each table."""
        ran = subprocess.run(
            [PROBE, "schema.cfg"],
            capture_output=True,
            timeout=60,
            check=True,
            cwd=self.directory,
        )
        tables = []
        for line in ran.stdout.decode("latin-1").splitlines():
            word, _, rest = line.partition(" ")
            if line == "START FAILED":
                return None
            if word == "TABLE":
                main, _, backup = rest.partition("\t")
                tables.append(Loaded(self.relative(main), self.relative(backup), []))
            else:
                tables[-1].rows.append(bytes.fromhex(rest))
        return tables


def run(*arguments, cwd=None, prefix=(), most_memory=None, **options):
    def limit():
        if most_memory:
            resource.setrlimit(resource.RLIMIT_AS, (most_memory, most_memory))

    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
    command = [*prefix, CHECK, *arguments]
    # No other thread can hold a lock that the child waits for: there is none.
    # pylint: disable-next=subprocess-popen-preexec-fn
    ran = subprocess.run(command, check=False, timeout=60, cwd=cwd, preexec_fn=limit, **options)
    out, err = ((text or b"").decode("utf-8", "replace") for text in (ran.stdout, ran.stderr))
    return subprocess.CompletedProcess(ran.args, ran.returncode, out, err)


def expect(outcome, file, line, severity, part):
    assert outcome.status == 1, outcome.out
    assert outcome.has(file, line, severity, part), outcome.out


def expect_clean(outcome):
    assert (outcome.status, outcome.out, outcome.err) == (0, "clean\n", "")


def rows_of(files):
    (only,) = files.start()
    return only.rows


def table(name="t", columns=("a 31 1", "b 31 0"), ports=None, **keys):
    """A table's block; schema_text tells of the keys."""
    return schema_text.table(name, columns, ports, **keys)


def as_json(out):
    return json.loads(out)


PORT_COLUMNS = tuple(f"c{i} 31 0" for i in range(9))


def port_row(name, location, internal="", external="", kind="0"):
    """A row of a table with PORT_COLUMNS and the port columns 3 and 4."""
    return f"{name}|k|l|{internal}|{external}|{location}|x|{kind}|{kind}"
