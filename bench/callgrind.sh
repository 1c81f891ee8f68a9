#!/bin/sh
# Counts the instructions of one call of the module, case by case, and splits them into the module's
# own and those of its host's functions. The counts are the same in every run on one machine.
# Usage: bench/callgrind.sh BUILD_DIR [CASE...]
#
# The host is the stand-in, whose functions cost something else than a real server's: what counts
# here is the module's part, and how often it calls the host.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$1
shift
[ $# -gt 0 ] || set -- select nl_select insert_delete best_match best_match_prefix out_of_range within_the_range subnet
command -v valgrind >/dev/null || {
  echo "callgrind: valgrind is missing (Debian package valgrind)" >&2
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for name in "$@"; do
  # Bound at once, so that no call pays for its first look-up.
  LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file="$work/$name.out" \
    --toggle-collect=measured_step --compress-strings=no --compress-pos=no \
    "$build/bench/bench_calls" "$build/tarn_memdb.so" "$name" 1000 \
    >"$work/$name.calls" 2>"$work/$name.log" || {
    cat "$work/$name.log" >&2
    exit 1
  }
  python3 "$here/callgrind_split.py" "$name" 1000 "$work/$name.out" "$work/$name.calls"
done
