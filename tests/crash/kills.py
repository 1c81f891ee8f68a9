"""The server killed at random moments under load, and what its next start finds.

After each kill the files are judged by their bytes: which stores they can come from, and what the
rules allow a killed store to leave. Then the server starts on them, as they are, and has to hold
what the rules make of them.
"""

import collections
import concurrent.futures
import random
import time

import load
import site_servers as site
import table_model

# What a store writes after it has let go of the table's lock: the tail in the stream's buffer.
TAIL = 4096


class Lane:
    """One server that is killed again and again."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.counts = collections.Counter()

    def run(self, rounds):
        with load.server() as made:
            load.write_first(made)
            for _ in range(rounds):
                self.round(made)
            # The last kill's files, too, have to be good for a start and a stop.
            made.start()
            site.check(made.stop() == 0, "the last stop failed")
        return self.counts

    def round(self, made):
        self.refill(made)
        expected = {table.name: site.Expected(made, table.name) for table in load.TABLES}
        made.start()
        site.Expected.check_log(made, expected.values())
        for table, each in expected.items():
            each.check_files()
            self.counts["set aside"] += len(each.warnings)
            if table != "quiet":
                load.check_rows(made, table, each.loaded.rows)
        stamps, journal = expected["stamps"].loaded.rows, expected["journal"].loaded.rows
        work = load.Load(made, stamps, journal, load.loaded_gen(stamps))
        work.start()
        time.sleep(self.random.uniform(0.0, 1.4))
        made.kill()
        work.end()
        site.check_sound(made)
        self.counts["kills"] += 1
        self.counts["stores"] += len(work.stored_gens) + len(work.stored_rows) - 2
        for judged in (Stamps(work), Journal(work)):
            each = expected[judged.table]
            self.judge(judged, each.files, site.files(made, judged.table))
            refused = site.refused(made, judged.table)
            site.check(refused == each.refused, judged, "has another refused file")
        site.check(site.files(made, "quiet") == (load.QUIET_FILE, None), "quiet was touched")

    def refill(self, made):
        """Begins anew when too little is left, or too much has come together."""
        stamps = table_model.load("stamps", 4, *site.files(made, "stamps")).rows
        journal = table_model.load("journal", 4, *site.files(made, "journal")).rows
        if len(stamps) < load.ROWS // 2 or len(journal) > load.JOURNAL_LIMIT:
            load.write_first(made)
            self.counts["refills"] += 1

    def judge(self, judged, before, files):
        main, backup = files
        base = before[0] if before[0] is not None else before[1]
        loaded = table_model.load(judged.table, 4, *files)
        self.counts["loaded from " + loaded.source] += 1
        for raw in files:
            legal = raw is None or raw in before or judged.can_write(raw)
            site.check(legal, judged, "has", raw and raw[:200])
        last = judged.stored[-1]
        if files == before:
            # A store that comes ahead of the first change has nothing to write.
            site.check(last == judged.stored[0], judged, "is as before, for all answered stores")
            return

        def holds(raw, number, tail=0):
            # What the start found needn't be as a store would write it.
            if raw is None or (number == judged.stored[0] and raw == base):
                return raw is not None
            return judged.holds(raw, number, tail)

        if holds(main, last):
            # The generation before stays; of it, the writer's tail may be missing.
            previous = judged.stored_before(main)
            site.check(
                backup in before or holds(backup, previous, TAIL), judged, "lost its backup"
            )
            return
        self.counts["mid-store"] += 1
        if holds(backup, last):
            return
        # One process began a store while another one still had the tail of its own to write.
        self.counts["tail missing"] += 1
        site.check(
            holds(main, last, TAIL) or holds(backup, last, TAIL), judged, "lost what it stored last"
        )


class Stamps:
    """Which stores a file of `stamps` can come from: generations by number."""

    table = "stamps"

    def __init__(self, work):
        self.work = work
        self.stored = work.stored_gens

    def __str__(self):
        return f"stamps (stored {self.stored[-2:]})"

    def _gen(self, raw):
        fields = raw[len(table_model.HEAD) :].split(b"|", 3)
        return int(fields[2]) if len(fields) == 4 else None

    def stored_before(self, _):
        """What was stored last before the main file was: a sync follows each update."""
        return self.stored[-2] if len(self.stored) > 1 else self.stored[0]

    def can_write(self, raw):
        gen = self._gen(raw)
        if gen is None:
            return self.work.stamps_text(self.work.sent_gen).startswith(raw)
        known = self.stored[0] <= gen <= self.work.sent_gen
        return known and self.work.stamps_text(gen).startswith(raw)

    def holds(self, raw, number, tail):
        gen = self._gen(raw)
        return (
            gen is not None
            and gen >= number
            and len(self.work.stamps_text(gen)) - len(raw) <= tail
        )


class Journal:
    """Which stores a file of `journal` can come from: row counts."""

    table = "journal"

    def __init__(self, work):
        self.work = work
        self.stored = work.stored_rows

    def __str__(self):
        return f"journal (stored {self.stored[-2:]})"

    def stored_before(self, main):
        """What was stored at least before the main file was: a sync that was answered ahead of the
        file's last row didn't write it."""
        rows = main.count(b"\n") - 1
        syncs = zip(self.stored, self.work.rows_by_then, strict=False)
        return max((number for number, sent in syncs if sent < rows), default=self.stored[0])

    def can_write(self, raw):
        return self.work.journal_text(len(self.work.journal)).startswith(raw)

    def holds(self, raw, number, tail):
        return len(raw) >= len(self.work.journal_text(number)) - tail


def run(rounds, lanes):
    seeds = [random.randrange(1 << 32) for _ in range(lanes)]
    shares = [rounds // lanes + (lane < rounds % lanes) for lane in range(lanes)]
    counts = collections.Counter()
    # Processes, since forking from a process with threads of a load would be unsafe.
    with concurrent.futures.ProcessPoolExecutor(lanes) as pool:
        for counted in pool.map(_run_lane, seeds, shares):
            counts += counted
    return (
        f"{counts['kills']} kills, 0 losses beyond the file rules"
        f" ({counts['stores']} answered stores, {counts['mid-store']} tables killed in mid-store,"
        f" {counts['loaded from main']} loads from a main file,"
        f" {counts['loaded from backup']} from a backup, {counts['loaded from none']} from none,"
        f" {counts['tail missing']} tails missing, {counts['set aside']} files set aside)"
    )


def _run_lane(seed, rounds):
    try:
        return Lane(seed).run(rounds)
    except Exception as trouble:
        raise site.Deviation(f"seed {seed}: {trouble}") from trouble
