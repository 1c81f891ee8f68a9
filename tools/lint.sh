#!/bin/sh
# Checks form and finds slips: clang-format on all sources, both compilers without a warning,
# clang-tidy and g++'s analyzer on the module's own code, shellcheck on all shell scripts, and flake8,
# isort and pylint on all Python scripts. Usage: tools/lint.sh BUILD_DIR
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
build=$1
cd "$top"
jobs=$(nproc)

sources() { git ls-files --cached --others --exclude-standard '*.cpp' '*.cc' '*.h'; }
# Files that start with a line for one of these interpreters, or whose names end so.
scripts() { # interpreter, suffix
  git ls-files --cached --others --exclude-standard "*.$2"
  git ls-files --cached --others --exclude-standard | grep -v '\.[^/]*$' |
    xargs awk "FNR == 1 { if (/^#!.*$1( |\$)/) print FILENAME; nextfile }"
}
module_code() { python3 tools/rooms.py sources; }

echo "lint: shellcheck"
scripts '(sh|bash)' sh | xargs shellcheck

echo "lint: isort, flake8, pylint"
scripts 'python3?' py | xargs isort --check-only --quiet
scripts 'python3?' py | xargs flake8
scripts 'python3?' py | xargs pylint --score=n -j "$jobs"

echo "lint: clang-format"
sources | xargs clang-format --dry-run --Werror

echo "lint: clang++ without a warning"
cmake -S . -B "$build/clang" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DBUILD_TESTING=OFF \
  -DCMAKE_CXX_FLAGS=-Werror >/dev/null
cmake --build "$build/clang" --target tarn_memdb >"$build/clang/lint.log" 2>&1 || {
  cat "$build/clang/lint.log"
  exit 1
}

# Lock rules are among clang++'s warnings; here it has to notice broken ones.
clang++ -std=gnu++20 -fsyntax-only -Wthread-safety -Xclang -verify -I. tests/lint/broken_lock_rules.cc

# The compiler alone, as nothing of it is linked here.
echo "lint: the tools with clang++ without a warning"
git ls-files --cached --others --exclude-standard 'tools/*.cpp' |
  xargs -P "$jobs" -n 8 clang++ -std=gnu++20 -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow \
    -Wconversion -Werror -DTARN_VERSION='""' -I. -I"$build/clang/generated"

echo "lint: clang-tidy"
module_code |
  xargs -P "$jobs" -n 4 clang-tidy -p "$build/clang" --quiet \
    --header-filter="$(python3 tools/rooms.py pattern)" >"$build/clang/tidy.log" 2>/dev/null || {
  cat "$build/clang/tidy.log"
  exit 1
}

echo "lint: g++'s analyzer"
module_code |
  xargs -P "$jobs" -I SOURCE g++ -std=gnu++20 -O2 -fno-exceptions -fno-rtti -fanalyzer -Werror -I. \
    -I"$build/clang/generated" -c SOURCE -o /dev/null >"$build/clang/analyzer.log" 2>&1 || {
  cat "$build/clang/analyzer.log"
  exit 1
}

echo "lint: rooms include only rooms below them"
python3 tools/rooms.py check
echo "lint: clean"
