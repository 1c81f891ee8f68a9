#!/bin/sh
# Finds a runnable SIP server to test and show the module on, and unpacks one if there is none.
#
# In this order:
#   1. KAMAILIO=/path/to/kamailio [KAMAILIO_MODULES=/path/to/its/modules] [KAMCMD=/path/to/kamcmd]
#   2. an installed kamailio 6.0.x or 6.1.x
#   3. Debian trixie's package, unpacked into HOST_ROOT (default: build/host beside this folder)
#
# Prints the host as shell assignments, for `eval`:
#   HOST_KIND       given, installed or unpacked
#   HOST_KAMAILIO   the server
#   HOST_KAMCMD     its command line client, empty if there is none
#   HOST_MODULES    its module directory, empty if it has to find its own
#   HOST_LOADER     the loader to start both through, empty if they start as they are
#   HOST_LIBRARIES  the libraries for that loader
# With --modules it prints the module directory alone.
#
# What it does besides goes to stderr. Nothing is installed or unpacked for 1 and 2.
set -eu

tools=$(cd "$(dirname "$0")" && pwd)
cache=${HOST_ROOT:-$tools/../build/host}

suite=trixie
packages=kamailio,kamailio-lua-modules,kamailio-python3-modules,kamailio-ruby-modules,kamailio-sqlite-modules
arch_dir=usr/lib/x86_64-linux-gnu
loader=usr/lib64/ld-linux-x86-64.so.2

say() { printf 'host-root: %s\n' "$*" >&2; }
die() {
  say "$*"
  exit 1
}

# Quotes a value so that `eval` gives it back unchanged.
quoted() { printf "'%s'" "$(printf '%s' "$1" | sed "s/'/'\\\\''/g")"; }

describe() {
  if [ "${mode:-}" = --modules ]; then
    printf '%s\n' "$HOST_MODULES"
    return
  fi
  printf 'HOST_KIND=%s\n' "$(quoted "$HOST_KIND")"
  printf 'HOST_KAMAILIO=%s\n' "$(quoted "$HOST_KAMAILIO")"
  printf 'HOST_KAMCMD=%s\n' "$(quoted "$HOST_KAMCMD")"
  printf 'HOST_MODULES=%s\n' "$(quoted "$HOST_MODULES")"
  printf 'HOST_LOADER=%s\n' "$(quoted "$HOST_LOADER")"
  printf 'HOST_LIBRARIES=%s\n' "$(quoted "$HOST_LIBRARIES")"
}

# The module directory that a server was built to look in.
default_modules() {
  "$1" -h 2>/dev/null | sed -n 's/.*Modules search path (default: \(.*\)).*/\1/p' | sed 's/:.*//'
}

# The client that belongs to a server: beside it, or where the path leads.
client_of() {
  near=$(dirname "$1")
  for candidate in "${KAMCMD:-}" "$near/kamcmd" "$near/../bin/kamcmd" "$(command -v kamcmd || true)"; do
    if [ -n "$candidate" ] && [ -x "$candidate" ]; then
      printf '%s\n' "$candidate"
      return
    fi
  done
}

use_in_place() { # kind, server, modules
  HOST_KIND=$1
  HOST_KAMAILIO=$2
  HOST_MODULES=$3
  [ -n "$HOST_MODULES" ] || HOST_MODULES=$(default_modules "$2")
  HOST_KAMCMD=$(client_of "$2")
  HOST_LOADER=
  HOST_LIBRARIES=
  describe
  exit 0
}

use_given() {
  [ -n "${KAMAILIO:-}" ] || return 0
  given=$(readlink -f "$KAMAILIO" || true)
  if [ ! -f "$given" ] || [ ! -x "$given" ]; then die "KAMAILIO=$KAMAILIO isn't a program"; fi
  # The wrapper beside this script asks this script which host to run: don't go round in circles.
  [ "$given" != "$tools/host-kamailio" ] || return 0
  [ -z "${KAMAILIO_MODULES:-}" ] || [ -d "$KAMAILIO_MODULES" ] ||
    die "KAMAILIO_MODULES=$KAMAILIO_MODULES isn't a directory"
  use_in_place given "$given" "${KAMAILIO_MODULES:-}"
}

use_installed() {
  # An unprivileged user's PATH usually lacks the sbin directories.
  installed=$(PATH=$PATH:/usr/local/sbin:/usr/sbin command -v kamailio || true)
  [ -n "$installed" ] || return 0
  case $("$installed" -v 2>/dev/null | head -n 1) in
  *"kamailio 6."[01].*) use_in_place installed "$installed" '' ;;
  *) say "$installed is neither a 6.0.x nor a 6.1.x, so it isn't used" ;;
  esac
}

# Runs a command with root's rights where they are needed and can be had.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    die "needs root's rights for: $* (run it as root, or install sudo)"
  fi
}

need_program() { # program, package
  ! command -v "$1" >/dev/null || return 0
  command -v apt-get >/dev/null || die "$1 is missing, and there is no apt-get to install it with"
  say "installing $2"
  log=$cache/install.log
  {
    as_root apt-get install -y --no-install-recommends "$2" ||
      { as_root apt-get update && as_root apt-get install -y --no-install-recommends "$2"; }
  } >"$log" 2>&1 </dev/null || {
    tail -n 15 "$log" >&2
    die "could not install $2"
  }
  command -v "$1" >/dev/null || die "$2 is installed, but there is no $1"
}

run_unpacked() { # root, program, arguments
  at=$1
  program=$2
  shift 2
  "$at/$loader" --library-path "$at/$arch_dir" "$at/$program" "$@"
}

# The stamp is written last, so that a root with it is a whole one of just these packages.
is_whole() { [ -f "$1/.unpacked" ] && [ "$(cat "$1/.unpacked")" = "$suite $packages" ]; }

unpack() {
  # Whatever an interrupted run left behind. With sudo it may be root's.
  for leftover in "$cache"/root.unpacking "$cache"/root.old; do
    [ ! -e "$leftover" ] || rm -rf "$leftover" 2>/dev/null || as_root rm -rf "$leftover"
  done
  need_program mmdebstrap mmdebstrap
  say "unpacking $packages of Debian $suite into $cache"
  aside=$cache/root.unpacking
  log=$cache/unpack.log
  as_root mmdebstrap --variant=extract --include="$packages" "$suite" "$aside" \
    >"$log" 2>&1 </dev/null || {
    tail -n 15 "$log" >&2
    die "could not unpack Debian's package (the whole of it: $log)"
  }
  if [ "$(id -u)" -ne 0 ]; then as_root chown -R "$(id -u):$(id -g)" "$aside"; fi
  case $(run_unpacked "$aside" usr/sbin/kamailio -v 2>>"$log" | head -n 1) in
  *"kamailio 6.0."*) ;;
  *) die "what Debian $suite gave doesn't run as a kamailio 6.0.x (see $log)" ;;
  esac
  printf '%s\n' "$suite $packages" >"$aside/.unpacked"
  [ ! -e "$cache/root" ] || mv "$cache/root" "$cache/root.old"
  mv "$aside" "$cache/root"
  rm -rf "$cache/root.old"
  rm -f "$log" "$cache/install.log"
}

use_unpacked() {
  if ! is_whole "$cache/root"; then
    [ "$(uname -s) $(uname -m)" = "Linux x86_64" ] ||
      die "there is no host for $(uname -s) on $(uname -m)"
    mkdir -p "$cache" || die "could not make $cache"
    command -v flock >/dev/null || die "flock is missing (package util-linux)"
    (
      flock 9
      # Another run may have unpacked it while this one waited.
      is_whole "$cache/root" || unpack
    ) 9>"$cache/lock"
  fi
  cache=$(cd "$cache" && pwd)
  HOST_KIND=unpacked
  HOST_KAMAILIO=$cache/root/usr/sbin/kamailio
  HOST_KAMCMD=$cache/root/usr/sbin/kamcmd
  HOST_MODULES=$cache/root/$arch_dir/kamailio/modules
  HOST_LOADER=$cache/root/$loader
  HOST_LIBRARIES=$cache/root/$arch_dir
  describe
}

mode=${1:-}
case $mode in
'' | --modules) ;;
*) die "usage: host-root.sh [--modules]" ;;
esac

use_given
use_installed
use_unpacked
