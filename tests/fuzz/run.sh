#!/bin/sh
# Runs every harness under libFuzzer for some seconds each, as many at once as there are processors.
#
#   run.sh <build directory> <seconds> [harness...]
#
# The directory gets a clang build of its own, the inputs that the runs found worth keeping
# (corpus/), their output (log/) and what they found wrong (findings/). The last line tells the
# executions and the findings; the result is 0 if there are none.
set -eu

if [ $# -lt 2 ]; then
  echo "usage: $0 <build directory> <seconds> [harness...]" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
build=$(cd "$1" && pwd)
seconds=$2
shift 2
clang=${FUZZ_CXX:-clang++}
jobs=${FUZZ_JOBS:-$(nproc)}

if ! command -v "$clang" >/dev/null; then
  echo "fuzz: $clang isn't installed (package clang)" >&2
  exit 1
fi
sanitizers=address,undefined
cmake -S "$here/../.." -B "$build" -DTARN_FUZZ=ON -DCMAKE_CXX_COMPILER="$clang" \
  -DCMAKE_CXX_FLAGS="-fsanitize=$sanitizers -fno-sanitize-recover=undefined \
-fno-omit-frame-pointer" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$sanitizers" >"$build/configure.log" 2>&1 || {
  cat "$build/configure.log" >&2
  exit 1
}
cmake --build "$build" --target fuzzers -j "$jobs" >"$build/build.log" 2>&1 || {
  cat "$build/build.log" >&2
  exit 1
}

if [ $# -eq 0 ]; then
  for source in "$here"/*_fuzz.cc; do
    set -- "$@" "$(basename "$source" _fuzz.cc)"
  done
fi
rm -rf "$build/log" "$build/findings"
mkdir -p "$build/log" "$build/findings"

# One harness: its own corpus first, then what earlier runs kept.
cat >"$build/one.sh" <<'ONE'
#!/bin/sh
build=$1 here=$2 seconds=$3 name=$4
mkdir -p "$build/corpus/$name" "$build/findings/$name"
set -- -max_total_time="$seconds" -print_final_stats=1 -max_len=2048 -timeout=20 \
  -rss_limit_mb=3000 -artifact_prefix="$build/findings/$name/"
if [ -f "$here/$name.dict" ]; then set -- "$@" -dict="$here/$name.dict"; fi
UBSAN_OPTIONS=print_stacktrace=1 \
  ASAN_OPTIONS=allocator_may_return_null=1:malloc_context_size=8:quarantine_size_mb=16 \
  "$build/tests/fuzz/${name}_fuzz" "$@" "$build/corpus/$name" "$here/corpus/$name" \
  >"$build/log/$name" 2>&1
echo $? >"$build/log/$name.result"
ONE
printf '%s\n' "$@" | xargs -P "$jobs" -I NAME sh "$build/one.sh" "$build" "$here" "$seconds" NAME

executions=0
findings=0
for name in "$@"; do
  done_here=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/log/$name")
  found_here=$(find "$build/findings/$name" -type f | wc -l)
  if [ "$(cat "$build/log/$name.result")" != 0 ] && [ "$found_here" -eq 0 ]; then found_here=1; fi
  printf '%-16s %10s executions, %s findings\n' "$name" "${done_here:-0}" "$found_here"
  if [ "$found_here" -ne 0 ]; then tail -n 40 "$build/log/$name" >&2; fi
  executions=$((executions + ${done_here:-0}))
  findings=$((findings + found_here))
done
echo "fuzz: $executions executions, $findings findings"
[ "$findings" -eq 0 ]
