"""A directory with two schemas and table files, and tarn-memdb-convert run on it."""

import os
import subprocess

from check_files import CheckFiles, Outcome, schema_text

CONVERT = os.environ.get("TARN_CONVERT", "")


class ConvertFiles(CheckFiles):
    def schemas(self, old, new):
        """Both schemas, each of one block or a list of them."""
        for name, given in (("old.cfg", old), ("new.cfg", new)):
            blocks = [given] if isinstance(given, str) else given
            self.write(name, self.head(len(blocks)) + "".join(blocks))
        return self

    def convert(self, *options, files=("old.cfg", "new.cfg"), **how):
        ran = run(*options, *files, cwd=self.directory, **how)
        out = ran.stdout.decode("utf-8", "replace")
        err = ran.stderr.decode("utf-8", "replace")
        found = [*self.findings(out), *self.findings(err)]
        return Outcome(ran.returncode, out.replace(f"{self.directory}/", ""), err, tuple(found))

    def export(self, table="t", **how):
        ran = run("--export", table, "old.cfg", cwd=self.directory, **how)
        assert (ran.returncode, ran.stderr) == (0, b""), ran.stderr
        return ran.stdout

    def take(self, csv, *options, table="t", **how):
        """Imports this text."""
        data = csv if isinstance(csv, bytes) else csv.encode("latin-1")
        return self.convert("--import", table, *options, files=("old.cfg",), input=data, **how)

    def text(self, name):
        return (self.directory / name).read_bytes().decode("latin-1")

    def lines(self, name):
        """The rows of a file."""
        first, *rows = self.text(name).removesuffix("\n").split("\n")
        assert first == "Version 1"
        return rows

    def texts(self):
        """What all files below hold, by their names."""
        return {
            str(path.relative_to(self.directory)): path.read_bytes()
            for path in sorted(self.directory.rglob("*"))
            if path.is_file()
        }


def run(*arguments, prefix=(), **options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
    command = [*prefix, CONVERT, *arguments]
    return subprocess.run(command, check=False, timeout=60, **options)


def expect_done(outcome):
    assert outcome.status == 0, outcome.out + outcome.err


def table(*columns, name="t", ports=None, **keys):
    """A table's block; a column is its name with 31 characters, or its whole line."""
    lines = [column if " " in column else f"{column} 31 0" for column in columns]
    return schema_text.table(name, lines, ports, **keys)


def expect_nothing_changed(files, before, outcome, status=1):
    assert outcome.status == status, outcome.out
    assert outcome.out.endswith("nothing was changed\n")
    assert files.texts() == before
