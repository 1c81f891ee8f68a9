"""A main file cut at every byte position, and what the next start makes of each.

One server has a table for each position, so that a start tries them all.
"""

import rpc_host
import site_servers as site
import table_model
from module_host import Table, columns

NAMES = ("id", "name", "note")
NEW_ROWS = [
    (str(number), name, note)
    for number, name, note in (
        (1, "alice", "first of all"),
        (2, "", ""),
        (10, "bob", ""),
        (11, "#carol", "a#b"),
        (123, "d", "x" * 31),
        (124, "erika", "strasse"),
        (125, "frank", "last"),
    )
]
OLD_ROWS = [("7", "old", "generation"), ("8", "old", "too")]


def run(step=1):
    """Tells how many loads of a cut file were looked at."""
    whole = table_model.text(NEW_ROWS)
    positions = range(0, len(whole) + 1, step)
    tried = 0
    for backup in (table_model.text(OLD_ROWS), table_model.text(OLD_ROWS)[:-4], None, b""):
        for use_index in (False, True):
            _start(whole, positions, backup, use_index)
            tried += len(positions)
    return f"{tried} loads of {len(positions)} cut positions"


def _start(whole, positions, backup, use_index):
    tables = [Table(f"t{at}", columns(*NAMES), use_index=use_index) for at in positions]
    with site.server(tables=tables, memory=64) as made:
        for at in positions:
            made.main_file(f"t{at}").write_bytes(whole[:at])
            if backup is not None:
                made.backup_file(f"t{at}").write_bytes(backup)
        all_expected = [site.Expected(made, f"t{at}") for at in positions]
        made.start()
        for expected in all_expected:
            rows = expected.loaded.rows
            site.check(site.select(made, expected.table) == rows, "rows of", expected.table)
            expected.check_files()
            if use_index:
                highest = max((int(row[0]) for row in rows if row[0]), default=0)
                told = rpc_host.info(made, expected.table)["Next index"]
                site.check(told == str(highest + 1), expected.table, "next index", told)
        site.Expected.check_log(made, all_expected)
        site.check(made.stop() == 0, "the stop failed")
        for expected in all_expected:
            expected.check_files("after a stop")
        site.check_sound(made)
