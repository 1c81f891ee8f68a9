"""Starts and reloads with too little shared memory for their rows, and stops in their midst."""

import random
import time

import reloads
import site_servers as site
from module_host import Table, columns

ROWS = 60_000
MANY = Table("many", columns("key", "text", "more", indexed=("key",)), max_rows=2 * ROWS)
LEAST, MOST = 8, 12  # MB: too little for most rows up to nearly all


def run(rounds):
    for _ in range(rounds):
        _round(random.randint(LEAST, MOST))
    return f"{rounds} servers without the memory for their rows, 0 texts lost"


def _round(memory):
    with site.server(tables=[MANY], memory=memory) as made:
        made.write_rows("many", (f"{number}|new|{number}" for number in range(ROWS)))
        made.write_rows("many", (f"{number}|old|{number}" for number in range(ROWS)), backup=True)
        texts = {backup: made.table_file("many", backup).read_bytes() for backup in (False, True)}
        made.start()
        site.check(made.refused_file("many").exists(), memory, "MB hold all rows")
        _check(made, texts, "a start with", memory, "MB")
        for backup in (False, True):
            if made.refused_file("many", backup).exists():
                made.refused_file("many", backup).rename(made.table_file("many", backup))
        reloads.Reload(made, "many")
        time.sleep(random.uniform(0.0, 0.5))
        site.check(made.stop() == 0, "the stop failed")
        site.check_sound(made)
        _check(made, texts, "a stop in a reload with", memory, "MB")


def _check(made, texts, *when):
    main, backup = site.files(made, "many")
    # A reload for which the memory was just enough, and its store: the generation before goes.
    if main == backup == texts[False]:
        return
    for is_backup, text in texts.items():
        places = (made.table_file("many", is_backup), made.refused_file("many", is_backup))
        found = [place for place in places if place.exists() and place.read_bytes() == text]
        site.check(found, "after", *when, "a text is gone, of the backup:", is_backup)
