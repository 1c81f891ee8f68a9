#!/usr/bin/python3 -B
"""Crash runs against a real server: kills, stops, full and odd file systems, cut files.

run.py MODULE [--short]; CRASH_ROUNDS gives the number of kills, CRASH_LANES how many servers are
killed side by side.
"""

import argparse
import os
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "host")]

import cuts  # noqa: E402  (found by way of the line above)
import kills  # noqa: E402
import lost_processes  # noqa: E402
import obstacles  # noqa: E402
import reloads_cut_off  # noqa: E402
import short_memory  # noqa: E402
import site_servers as site  # noqa: E402
import stops  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("module", type=pathlib.Path)
    parser.add_argument("--short", action="store_true", help="some of everything, below a minute")
    options = parser.parse_args()
    os.environ["TARN_MODULE"] = str(options.module.resolve(strict=True))
    rounds = 10 if options.short else int(os.environ.get("CRASH_ROUNDS", "300"))
    lanes = int(os.environ.get("CRASH_LANES", "2"))
    site.own_mounts()
    try:
        told = [
            cuts.run(step=16 if options.short else 1),
            obstacles.run(lanes + 1),
            reloads_cut_off.run(4 if options.short else 20),
            short_memory.run(2 if options.short else 12),
            lost_processes.run(1 if options.short else 12),
            stops.run(5 if options.short else 30),
            kills.run(rounds, lanes),
        ]
    except (site.Deviation, site.module_host.host_server.ServerTrouble) as deviation:
        print(f"crash: DEVIATION: {deviation}")
        return 1
    print("crash: " + "; ".join(reversed(told)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
