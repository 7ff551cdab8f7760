#!/usr/bin/env bash
# Installs the Debian packages that a task needs, and only the absent ones:
# dpkg is asked first, so on a machine that has everything this neither
# needs root nor touches the network.
#
#   scripts/deps.sh server    build and start kandb-meta and its tools
#   scripts/deps.sh test      build and run every test, sanitizer and fuzz
#                             builds included (everything `server` needs too)
#   scripts/deps.sh package   build the Debian package with cpack
#
# Several groups may be named at once. Exit status: 0 when everything is
# there (now), 1 when something is missing and cannot be installed, 2 for a
# bad command line.
set -euo pipefail

# One package a line; adding a package is adding a line. The server itself
# needs the compiler, OpenSSL and the HTTP library of its status port; everything
# else serves the tools, tests or CI.
server_packages=(
  cmake
  ninja-build
  g++
  nlohmann-json3-dev         # JSON of the tools and of the status port
  libssl-dev                 # TLS on the RPC port (OpenSSL)
  libcpp-httplib-dev         # the HTTP status port (built with OpenSSL)
  pkg-config                 # finds cpp-httplib's build flags
)
test_packages=(
  "${server_packages[@]}"
  clang                      # sanitizer and fuzz builds, lock annotation checks
  libclang-rt-14-dev         # clang's sanitizer and libFuzzer runtimes
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libcurl4-openssl-dev       # kandb-meta-ha's etcd client (built where found)
  etcd-server                # real etcd members for the replicated server's tests
  etcd-client
  openssl                    # the tests make their certificates with it
  util-linux                 # prlimit, for tests that lower resource limits
  prometheus                 # a real scraper of the status port in tests; promtool
                             # checks the packaged alert rules and dashboard queries
  python3-yaml               # the dashboard's metric name check reads the alert rules
)
package_packages=(
  "${server_packages[@]}"
  dpkg-dev                   # dpkg-shlibdeps: the package's library dependencies
  file                       # cpack's DEB generator tells binaries apart with it
  libcurl4-openssl-dev       # kandb-meta-ha, the second package, is built where found
  systemd                    # systemd-analyze verifies the packages' units
)

usage() {
  echo "usage: $0 GROUP... (groups: server, test, package)" >&2
  exit 2
}

[ $# -gt 0 ] || usage
wanted=()
for group in "$@"; do
  case "$group" in
    server) wanted+=("${server_packages[@]}") ;;
    test) wanted+=("${test_packages[@]}") ;;
    package) wanted+=("${package_packages[@]}") ;;
    *) echo "$0: unknown group '$group'" >&2; usage ;;
  esac
done

missing=()
for p in "${wanted[@]}"; do
  # "ii": selected for install and installed; anything else (absent, removed
  # with its configuration left, half-installed) counts as missing.
  if [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null)" != "ii " ]; then
    case " ${missing[*]-} " in
      *" $p "*) ;;
      *) missing+=("$p") ;;
    esac
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "deps: missing Debian packages: ${missing[*]}" >&2
if [ "$(id -u)" -ne 0 ]; then
  cat >&2 <<MSG
deps: installing them needs root; run
  sudo $0 $*
or install them yourself:
  sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}
MSG
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
