#!/bin/sh
# Prints the tables of `make bench`. Usage: bench/run.sh BUILD_DIR [options of Google Benchmark]
set -eu
build=$1
shift
echo "Allocations of one call of the module, its host's own not counted"
"$build/bench/bench_allocations"
echo
"$build/bench/bench_all" "$@"
