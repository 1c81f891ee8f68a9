#!/usr/bin/python3 -B
"""Holds tarn-memdb-check against a real server on random sets of files.

run.py SETS [--first NUMBER]: the sets of so many numbers. TARN_CHECK and TARN_MODULE name tool and
module, FORECAST_LANES how many servers run side by side. Of a set that was told wrongly the number
is printed; `run.py 1 --first NUMBER` runs it alone and keeps its files.
"""

import argparse
import collections
import concurrent.futures
import os
import pathlib
import shutil
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import forecast  # noqa: E402  (found by way of the line above)
import random_sets  # noqa: E402

CANT_BE_KEPT = "the row can't be kept"

MEMORY_KINDS = {"little memory", "too little memory"}

# What every run of more than some sets has to meet, or it would compare nothing.
KINDS = {"start fails", "hangs", "put away", "clean", "other findings", "too little memory"}


def try_set(number):
    """The kinds of the set, on one start or two."""
    # A socket's path has to fit 108 bytes.
    directory = tempfile.mkdtemp(prefix="tarn-fc-")
    made = None
    try:
        made = random_sets.RandomSet(number, directory)
        kind, told, seen = forecast.follow(made)
        kinds = [kind]
        if seen.start == "works" and kind not in MEMORY_KINDS:
            # What the first start has stored is the next one's set.
            expect_losses(told, seen, forecast.look(made))
            if told.says(CANT_BE_KEPT):
                kinds.append(forecast.follow(made)[0] + " after a store")
        return kinds
    except Exception as trouble:
        kept, directory = directory, None
        oddities = ", ".join(made.oddities) if made else "not made"
        said = f"set {number} ({oddities}): {trouble!r}; its files are in {kept}"
        raise forecast.Deviation(said) from trouble
    finally:
        if made:
            made.remove()
        if directory:
            shutil.rmtree(directory)


def expect_losses(told, seen, again):
    """Just those files are lost with the next store of which that was told."""
    if told.says("each store overwrites") or told.says(" goes if it can't be loaded"):
        return
    away = {moved["file"] for moved in again.report["put_away"]}
    for name, table in seen.tables.items():
        expected = told.table(name)
        file, source = expected["file"], expected["loaded_from"]
        stored = table.was_inserted and table.main is not None
        # The new row may be one that can't be kept itself.
        new_row = b"|".join([b"n9"] * table.columns)
        if not stored or not table.main.endswith(b"\n" + new_row + b"\n"):
            continue
        losses = [
            text
            for text in (told.texts(source) if source else [])
            if CANT_BE_KEPT in text and "whole file" in text
        ]
        forecast.check(bool(losses) == (file in away), file, "after a store:", losses, sorted(away))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("sets", type=int)
    parser.add_argument("--first", type=int, default=0)
    options = parser.parse_args()
    numbers = range(options.first, options.first + options.sets)
    lanes = int(os.environ.get("FORECAST_LANES", "2"))
    kinds = collections.Counter()
    wrong = 0
    with concurrent.futures.ProcessPoolExecutor(lanes) as pool:
        for done in [pool.submit(try_set, number) for number in numbers]:
            try:
                kinds.update(done.result())
            except forecast.Deviation as deviation:
                wrong += 1
                print(f"forecast: DEVIATION: {deviation}")
    lacking = KINDS - kinds.keys() if options.sets >= 40 else set()
    if lacking:
        print(f"forecast: no set of the kind: {', '.join(sorted(lacking))}")
    told = ", ".join(f"{count} {kind}" for kind, count in sorted(kinds.items()))
    print(f"forecast: {len(numbers)} sets, {wrong} told wrongly: {told}")
    return 1 if wrong or lacking else 0


if __name__ == "__main__":
    sys.exit(main())
