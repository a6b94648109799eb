#!/bin/bash
# Installs missing Debian packages for one purpose: lib, build, test, world, lint, bench or deb. Changes
# nothing if none is missing. Uses sudo unless root.
set -euo pipefail

lib=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev libssl-dev libxml2-dev libspdlog-dev
  libproxy-dev libunistring-dev libcli11-dev nlohmann-json3-dev)
build=("${lib[@]}" libgtest-dev libgmock-dev iproute2 curl openssl)
# Peers of the benchmarks, also used by their short run as a test.
peers=(python3 fping httping)
test=("${build[@]}" python3 binutils fping nginx squid)
world=("${test[@]}" "${peers[@]}" haproxy valgrind doxygen mandoc man-db zsh fish bash-completion
  clang libclang-rt-dev debhelper lintian debootstrap abigail-tools openvpn charon-systemd caddy)
lint=("${test[@]}" clang clang-format clang-tidy shellcheck)
deb=("${lib[@]}" debhelper lintian debootstrap)
bench=("${build[@]}" "${peers[@]}")

case "${1:-}" in
  lib) wanted=("${lib[@]}") ;;
  build) wanted=("${build[@]}") ;;
  test) wanted=("${test[@]}") ;;
  world) wanted=("${world[@]}") ;;
  lint) wanted=("${lint[@]}") ;;
  bench) wanted=("${bench[@]}") ;;
  deb) wanted=("${deb[@]}") ;;
  *)
    echo "usage: $0 lib|build|test|world|lint|bench|deb" >&2
    exit 2
    ;;
esac

missing=()
for package in "${wanted[@]}"; do
  state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || state=
  [ "$state" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "These Debian packages are missing, and installing them needs root: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "Installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# The packages must not start their servers: the tests start their own.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod 755 "$policy"
  trap '"${as_root[@]}" rm -f "$policy"' EXIT
fi
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}"
