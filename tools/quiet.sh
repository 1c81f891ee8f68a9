#!/bin/sh
# Runs a command with its output in a log file, and shows the log if the command fails.
# Usage: tools/quiet.sh LOG COMMAND...
log=$1
shift
mkdir -p "$(dirname "$log")"
"$@" >"$log" 2>&1 && exit 0
status=$?
cat "$log"
echo "failed ($status): $*" >&2
exit "$status"
