#!/usr/bin/env bash
# Builds the project, creates a self-contained installation root in a scratch
# directory from the sample files under etc/, starts the daemon there in the
# foreground in debug mode and talks to it with quorctl: a status report, a
# refresh of the configuration, and the stop. Everything it starts is
# stopped, and the scratch directory removed, when it ends.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target quordaemon quorctl quoruserpgm quor_cat

root=$(mktemp -d /tmp/quor-demo.XXXXXX)
daemon_pid=""
cleanup() {
  [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null
  rm -rf "$root"
}
trap cleanup EXIT

mkdir -p "$root/quor/etc" "$root/quor/bin" "$root/quor/log" "$root/quor/messages" "$root/tmp" "$root/tev"
cp etc/quor.config etc/quorobj.map etc/quorlang.map "$root/quor/etc/"
cp -r etc/messages "$root/"
cp build/agents/quoruserpgm "$root/quor/bin/"
cp build/quor.cat "$root/quor/messages/"
export MOXGLBL0000="$root" TEV_DIR="$root/tev" TMPDIR="$root/tmp"

echo "== Installation root: $root"
find "$root" -mindepth 1 -not -path "$root/tev*" | sed "s|^$root/|   |" | sort
echo
echo "== Starting quordaemon in the foreground in debug mode (trace in $root/daemon.out)"
MOXQUORDEBUG=1 build/src/quordaemon >"$root/daemon.out" 2>&1 &
daemon_pid=$!
for _ in $(seq 100); do [ -S "$TEV_DIR/MO_QUORUNIX_SERVER" ] && break; sleep 0.05; done

quorctl=build/tools/quorctl/quorctl
echo
echo "== quorctl status"
"$quorctl" status
echo
echo "== quorctl status --full"
"$quorctl" status --full
echo
echo "== quorctl refresh (re-reads $root/quor/etc/quor.config)"
"$quorctl" refresh
echo
echo "== quorctl terminate"
"$quorctl" terminate
wait "$daemon_pid" && echo "== quordaemon stopped with exit status $?"
daemon_pid=""
echo
echo "== The daemon's trace"
cat "$root/daemon.out"
echo
echo "== The message log"
cat "$root/quor/log/quordaemon.log"
