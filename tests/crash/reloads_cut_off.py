"""Stops in good order in the midst of a reload: the files stay what the reload reads."""

import time

import reloads
import site_servers as site
from module_host import Table, columns

ROWS = 100_000
MANY = Table("many", columns("key", "text"), max_rows=2 * ROWS)
# A stop that comes late is tried again.
TRIES = 6


def run(moments):
    with site.server(tables=[MANY], memory=64) as made:
        ahead, lasts = _measure(made)
        size = made.main_file("many").stat().st_size
        missed = 0
        for number in range(moments):
            part = (number + 0.5) / moments
            while not _stop_at(made, part, ahead, lasts, size):
                missed += 1
                site.check(missed < TRIES * moments, missed, "stops missed their reload")
    return (
        f"{moments} stops met a reload of {lasts:.2f} s, 0 files touched"
        f" ({missed} came when it was over)"
    )


def _stop_at(made, part, ahead, lasts, size):
    """True if the stop met the reload; the files are as they have to be in either case."""
    _write_files(made)
    before = made.file_states()
    made.start()
    reload = reloads.Reload(made, "many")
    # The rows that were there are thrown away ahead of the first read.
    if part * lasts < ahead:
        time.sleep(part * lasts)
    else:
        reload.wait_until_read((part * lasts - ahead) / (lasts - ahead) * size)
    site.check(made.stop() == 0, "the stop failed")
    site.check_sound(made)
    if _was_met(made):
        site.check(made.file_states() == before, "a stop at", part, "touched a file")
        return True
    rows = made.rows("many")
    site.check(rows == _rows("row"), "a stop at", part, "left", len(rows), "rows")
    return False


def _rows(word):
    return [f"{number}|{word} {number} of all" for number in range(ROWS)]


def _write_files(made):
    made.write_rows("many", _rows("row"))
    made.write_rows("many", _rows("old"), backup=True)


def _measure(made):
    """The seconds of a reload until its first read, and until its end."""
    _write_files(made)
    made.start()
    reload = reloads.Reload(made, "many")
    ahead = reload.wait_until_read(1)
    # The reply waits for the table's lock.
    counted = site.rpc_host.info(made, "many")["Row count"]
    lasts = time.monotonic() - reload.began
    site.check(counted == str(ROWS), "reloaded", counted, "rows")
    site.check(made.stop() == 0, "the stop failed")
    return ahead, lasts


def _was_met(made):
    told = "Table 'many' was being reloaded when the server stopped. Its files stay as they are\n"
    warnings = made.said("WARNING")
    site.check(warnings in ([], [told]), "warned of", warnings)
    return warnings == [told]
