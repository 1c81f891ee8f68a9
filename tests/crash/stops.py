"""Stops in good order under load, which meet the workers wherever they are."""

import random
import time

import load
import site_servers as site
import table_model

LONGEST_STOP = 5.0


def run(rounds):
    longest, split = 0.0, 0
    with load.server() as made:
        load.write_first(made)
        for _ in range(rounds):
            load.write_first(made)
            made.start()
            work = load.Load(made, load.stamp_rows(2), [], 2)
            work.start()
            time.sleep(random.uniform(0.1, 1.5))
            began = time.monotonic()
            status = made.stop()
            longest = max(longest, time.monotonic() - began)
            work.end()
            site.check(status == 0, "a stop ended with status", status)
            split += _check_stamps(made, work)
            rows = table_model.read(made.main_file("journal"))
            site.check(
                rows in {work.journal_text(n) for n in (work.acked_rows, len(work.journal))},
                "journal after a stop:",
                rows.count(b"\n") - 1,
                "rows, answered were",
                work.acked_rows,
            )
            site.check(site.files(made, "quiet") == (load.QUIET_FILE, None), "quiet was touched")
            site.check_sound(made)
    site.check(longest < LONGEST_STOP, "a stop took", longest)
    return (
        f"{rounds} stops under load, all stored ({split} in the midst of an update),"
        f" the longest {longest:.3f} s"
    )


def _check_stamps(made, work):
    """Every answered update is stored; one that the signal cut off may be so in part."""
    main = table_model.read(made.main_file("stamps"))
    if main in (work.stamps_text(work.acked_gen), work.stamps_text(work.sent_gen)):
        return 0
    rows, complaint = table_model.parse("stamps", 4, main)
    site.check(rows is not None, "stamps after a stop:", complaint)
    gens = [int(row[2]) for row in rows]
    site.check(
        len(rows) == load.ROWS and set(gens) <= {work.acked_gen, work.sent_gen},
        "stamps after a stop:",
        len(rows),
        "rows of generations",
        sorted(set(gens)),
        "answered was",
        work.acked_gen,
    )
    site.check(
        gens in (sorted(gens), sorted(gens, reverse=True)), "an update left out rows in between"
    )
    return 1
