#!/usr/bin/env bash
# Builds the project, creates a self-contained installation root in a scratch
# directory from the sample files under etc/, starts the daemon there in the
# foreground in debug mode and talks to it with quorctl: a status report, a
# refresh of the configuration, a session (log in as "nobody" through the
# logon agent, run a command as that account through the utility agent, send
# a table to the probe agent, log off) when run as root, and the stop.
# Everything it starts is
# stopped, and the scratch directory removed, when it ends.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target quordaemon quorctl quoruserpgm quorlogon quorutil quorprobe quor_cat

root=$(mktemp -d /tmp/quor-demo.XXXXXX)
chmod 755 "$root"  # agents running as other accounts answer through $root/tev
daemon_pid=""
# On an early end the daemon is asked to stop as usual, so that it stops the
# login processes it started; killed only if it does not answer. In debug
# mode it installs no signal handlers, and a signal would leave them running.
cleanup() {
  if [ -n "$daemon_pid" ]; then
    build/tools/quorctl/quorctl --timeout 5 terminate >/dev/null 2>&1 || true
    for _ in $(seq 50); do kill -0 "$daemon_pid" 2>/dev/null || break; sleep 0.1; done
    kill "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
  fi
  [ -n "${QUOR_DEMO_KEEP:-}" ] || rm -rf "$root"
}
trap cleanup EXIT

mkdir -p "$root/quor/etc" "$root/quor/bin" "$root/quor/log" "$root/quor/messages" "$root/tmp" "$root/tev"
chmod 1777 "$root/tev"  # like /tmp: agents running as other accounts register there to answer
cp etc/quor.config etc/quorobj.map etc/quorlang.map "$root/quor/etc/"
cp -r etc/messages "$root/"
cp build/agents/quoruserpgm build/agents/quorlogon build/agents/quorutil build/agents/quorprobe "$root/quor/bin/"
mkdir -p "$root/probe" && chmod 1777 "$root/probe"
cp build/quor.cat "$root/quor/messages/"
export MOXGLBL0000="$root" TEV_DIR="$root/tev" TMPDIR="$root/tmp"

echo "== Installation root: $root"
find "$root" -mindepth 1 -not -path "$root/tev*" | sed "s|^$root/|   |" | sort
echo
echo "== Starting quordaemon in the foreground in debug mode (trace in $root/daemon.out)"
MOXQUORDEBUG=1 QUORPROBE_DIR="$root/probe" MOXQUORKEEPENV=QUORPROBE_DIR build/src/quordaemon >"$root/daemon.out" 2>&1 &
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
if [ "$(id -u)" -eq 0 ] && getent passwd nobody >/dev/null; then
  echo
  echo "== quorctl --user nobody login"
  "$quorctl" --user nobody login
  echo
  echo "== quorctl --user nobody util 'id; echo hello from \$(hostname)'"
  "$quorctl" --user nobody util 'id; echo hello from $(hostname)'
  echo
  echo "== quorctl status --full (the session, and its login process)"
  "$quorctl" status --full
  echo
  printf 'id,name\n1,first\n2,second\n' >"$root/t.csv"
  echo "== quorctl --user nobody run PROBE ANSWER --select 'NAME = first' --table t.csv"
  echo "   (a table from CSV to the probe agent, which runs as nobody and answers with what it got)"
  "$quorctl" --user nobody run PROBE ANSWER --select 'NAME = first' --table "$root/t.csv"
  printf '%s\n' "-- the table as the agent received it:"
  cp "$root"/probe/*.data "$root/received.rdw" && "$quorctl" table-to-csv "$root/received.rdw"
  echo
  echo "== quorctl --user nobody logoff"
  "$quorctl" --user nobody logoff
else
  echo
  echo "== (not root: the session part, which starts agents under other accounts, is skipped)"
fi
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
