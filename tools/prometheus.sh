#!/bin/sh
# Prints the folder of the programs prometheus and promtool: where they are installed, or where
# Debian's package is unpacked, below HOST_ROOT (default: build/host beside this folder). Installed,
# the package would start a service.
set -eu

tools=$(cd "$(dirname "$0")" && pwd)
cache=${HOST_ROOT:-$tools/../build/host}/prometheus

die() {
  printf 'prometheus: %s\n' "$*" >&2
  exit 1
}

if installed=$(command -v promtool) && command -v prometheus >/dev/null; then
  dirname "$installed"
  exit 0
fi

fetch() {
  apt-get download prometheus || {
    # Debian's lists may be missing, or name a package that has been replaced.
    if [ "$(id -u)" -eq 0 ]; then apt-get update; else sudo apt-get update; fi
    apt-get download prometheus
  }
}

unpack() {
  command -v apt-get >/dev/null || die "it isn't installed, and there is no apt-get"
  rm -rf "$cache/new"
  mkdir -p "$cache/new"
  cd "$cache/new"
  fetch >"$cache/log" 2>&1 </dev/null || {
    tail -n 15 "$cache/log" >&2
    die "could not get Debian's package"
  }
  dpkg-deb -x prometheus_*.deb .
  mv usr/bin/prometheus usr/bin/promtool "$cache"
  rm -rf "$cache/new" "$cache/log"
}

mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
(
  flock 9
  # The second one is moved last.
  [ -x "$cache/promtool" ] || unpack
) 9>"$cache/lock"
printf '%s\n' "$cache"
