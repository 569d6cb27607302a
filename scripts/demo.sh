#!/usr/bin/env bash
# Builds the project, creates a self-contained installation root in a scratch
# directory, starts the daemon there in debug mode and talks to it with
# quorctl. Everything it starts is stopped, and the scratch directory
# removed, when it ends.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target quordaemon quorctl quor_cat

root=$(mktemp -d /tmp/quor-demo.XXXXXX)
daemon_pid=""
cleanup() {
  [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null
  rm -rf "$root"
}
trap cleanup EXIT

mkdir -p "$root/quor/etc" "$root/quor/bin" "$root/quor/log" "$root/quor/messages" "$root/tmp" "$root/tev"
cp etc/* "$root/quor/etc/" 2>/dev/null || true
cp build/quor.cat "$root/quor/messages/"
export MOXGLBL0000="$root" TEV_DIR="$root/tev"

echo "== Installation root: $root"
echo "== Starting quordaemon in debug mode"
MOXQUORDEBUG=1 build/src/quordaemon &
daemon_pid=$!
for _ in $(seq 100); do [ -S "$TEV_DIR/MO_QUORUNIX_SERVER" ] && break; sleep 0.05; done

quorctl=build/tools/quorctl/quorctl
echo
echo "== quorctl raw: a request of an unknown type (the daemon ignores it)"
printf 'header Z\ntrailer N\n' | "$quorctl" raw --no-reply -
sleep 0.2
echo
echo "== quorctl terminate"
"$quorctl" terminate
wait "$daemon_pid" && echo "== quordaemon stopped with exit status $?"
daemon_pid=""
echo
echo "== The message log"
cat "$root/quor/log/quordaemon.log"
