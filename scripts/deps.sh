#!/usr/bin/env bash
# Installs what building and testing needs, when it is missing, and the
# packages named as arguments. Needs root (or sudo) only when something has
# to be installed.
set -euo pipefail

packages=(cmake g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libc-bin make libpam0g-dev
  pandoc mandoc groff-base libnats-dev nats-server openssl util-linux musl-tools "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then sudo="sudo"; else
    echo "error: missing packages (${missing[*]}) and not root" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}" </dev/null
