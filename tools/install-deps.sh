#!/bin/sh
# Installs what the named groups of targets need and what is missing: Debian packages, through apt.
# Usage: tools/install-deps.sh module|test|lint|bench|fuzz|install|deb|package...
set -eu

packages_of() {
  case $1 in
    module) echo g++ cmake ninja-build ;;
    tools) echo nlohmann-json3-dev ;;
    demo) echo python3 ;;
    test) echo g++ cmake ninja-build libgtest-dev libgmock-dev python3 python3-pytest binutils curl ;;
    lint)
      echo clang clang-format clang-tidy nlohmann-json3-dev shellcheck
      echo isort flake8 python3-flake8-comprehensions pylint python3-pytest
      ;;
    bench) echo libbenchmark-dev libsqlite3-dev ;;
    fuzz) echo clang llvm libclang-rt-dev ;;
    callgrind) echo valgrind python3 ;;
    coverage) echo gcovr ;;
    install) echo help2man ;;
    deb) echo dpkg-dev file ;;
    cluster) echo faketime python3 ;;
    package) echo lintian man-db ;;
    package-test) echo mmdebstrap systemd-container python3 ;;
    *)
      echo "install-deps: no such group: $1" >&2
      exit 2
      ;;
  esac
}

missing=
for group in "$@"; do
  for package in $(packages_of "$group"); do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing="$missing $package"
  done
done
[ -n "$missing" ] || exit 0

as_root=
if [ "$(id -u)" != 0 ]; then
  command -v sudo >/dev/null || {
    echo "install-deps: not root, no sudo, and these packages are missing:$missing" >&2
    exit 1
  }
  as_root=sudo
fi
echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086
$as_root apt-get install -y --no-install-recommends $missing >/dev/null 2>&1 || {
  $as_root apt-get update >/dev/null
  $as_root apt-get install -y --no-install-recommends $missing >/dev/null
}
