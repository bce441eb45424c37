#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only those
# missing (so a machine that has them needs no network).
set -euo pipefail
# util-linux gives setpriv, with which a test runs a set-user-id program as
# another user; groff-base and man-db lint and render the man pages.
packages=(cmake ninja-build g++ gcc clang libclang-rt-14-dev pkg-config libc-bin
          libgtest-dev libssl-dev libsodium-dev libgmp-dev valgrind util-linux
          groff-base man-db)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
