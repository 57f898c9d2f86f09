#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when they are missing.
#   scripts/install-deps.sh             the Linux build
#   scripts/install-deps.sh --windows   also the Windows cross-build and Wine to run its tests
#   scripts/install-deps.sh --clang     also clang, for the clang build
set -euo pipefail

packages=(cmake make g++ pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
          libtomlplusplus-dev python3 rsyslog)
case "${1:-}" in
  --windows) packages+=(g++-mingw-w64-x86-64 wine64) ;;
  --clang) packages+=(clang) ;;
esac
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
