#!/bin/sh
# Line and branch coverage of the module's code by all tests together: unit tests, the built module
# on the stand-in host, and a real host. Usage: tools/coverage.sh BUILD_DIR
#
# Branches of a log line (level, sink, colour) count once, in the tests of host/log.h, and not at
# each of its uses.
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
cd "$top"

find "$build" -name '*.gcda' -delete
# module_shell_test is about the symbols of the installed file, and counters add some of their own.
(cd "$build" && ctest -j "${JOBS:-$(nproc)}" -E '^module_shell_test$' --output-on-failure \
  >"$build/ctest.log" 2>&1) || {
  cat "$build/ctest.log"
  exit 1
}
report() {
  gcovr --root . --object-directory "$build" "$@" \
    --filter "$(python3 tools/rooms.py pattern)" \
    --exclude-branches-by-pattern '.*(LM_[A-Z]+|HOST_LOG[A-Z_]*|MEMDB_LOG)\(.*' \
    --exclude-throw-branches --exclude-unreachable-branches "$build"
}
report --txt "$build/lines.txt" --html-details "$build/coverage.html" --json-summary "$build/summary.json" >/dev/null
report --branches --txt "$build/branches.txt" >/dev/null
sed -n '/^---/,$p' "$build/lines.txt" | grep -v '100%' || true
echo "not covered, by branch:"
grep -v '100%' "$build/branches.txt" | sed -n '6,$p' || true
python3 - "$build/summary.json" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
print(f"coverage: lines {s['line_covered']}/{s['line_total']} ({s['line_percent']}%), "
      f"branches {s['branch_covered']}/{s['branch_total']} ({s['branch_percent']}%)")
PY
