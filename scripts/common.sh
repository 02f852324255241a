# Shared by the scripts of this project; to be sourced, from bash.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '==> %s\n' "$*"; }

# Installs those of the given Debian packages that are missing. Asks the package system only for
# what its local list says is not there, so that a second run costs nothing and needs no network.
need_packages() {
  local missing=()
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  say "Installing ${missing[*]}"
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(g++ cmake ninja-build libboost-dev)
# For the tools and heapscope-report, which are left out where these are missing.
BUILD_PACKAGES+=(pkg-config libpugixml-dev libcli11-dev nlohmann-json3-dev libdw-dev)
TEST_PACKAGES=(libgtest-dev pkg-config git python3 libxml2-utils sqlite3)
BENCHMARK_PACKAGES=(libbenchmark-dev)
LINT_PACKAGES=(clang-format clang-tidy git mandoc)
DOCS_PACKAGES=(doxygen python3)

# Configures and builds a preset of CMakePresets.json, with further arguments for the configuration.
build_preset() {
  local preset=$1
  shift
  say "Building ($preset)"
  cmake --preset "$preset" "$@" >/dev/null
  cmake --build --preset "$preset"
}
