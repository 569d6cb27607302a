#!/usr/bin/env bash
# The Debian package as an operator gets it, installed with dpkg into a
# scratch root (maintainer scripts included): the daemon started from there
# the way its systemd unit starts it, asked for its status, reloaded, its log
# rotated and stopped; the unit checked by systemd-analyze; the bash
# completion; an upgrade keeping a local change to the configuration; a
# purge leaving nothing behind.
#
#   tests/package_test.sh DIR   tests DIR/quordaemon_*.deb (scripts/package.sh)
#
# Exits 77 (skipped) without a package or when not run as root.
set -uo pipefail

deb=$(ls "${1:?usage: package_test.sh DIR}"/quordaemon_*_*.deb 2>/dev/null | tail -n 1)
if [ -z "$deb" ]; then
  echo "SKIP: no package in $1 (scripts/package.sh builds it)"
  exit 77
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "SKIP: installing and starting the daemon needs root"
  exit 77
fi

work=$(mktemp -d /tmp/quor-pkg.XXXXXX)
root="$work/root"  # what dpkg installs into, and nothing else
daemon=""
failures=0
cleanup() {
  [ -n "$daemon" ] && kill -KILL "$daemon" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
# check DESCRIPTION COMMAND...: the command must succeed.
check() {
  local what=$1
  shift
  "$@" || fail "$what"
}

dpkg_root() {
  dpkg --root="$root" --force-script-chrootless --force-depends --log=/dev/null "$@" >"$work/dpkg.log" 2>&1 ||
    { cat "$work/dpkg.log"; fail "dpkg $*"; }
}

echo "== install $(basename "$deb") into a scratch root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/tmp"
touch "$root/var/lib/dpkg/status"
dpkg_root -i "$deb"
for file in /etc/quor/quor.config /etc/quor/quorobj.map /etc/quor/quorlang.map /etc/logrotate.d/quordaemon; do
  check "$file is a conffile" grep -qx "$file" "$root/var/lib/dpkg/info/quordaemon.conffiles"
done
check "the transport directory is root's, mode 1777" \
  test "$(stat -c '%a %U' "$root/tmp/tev" 2>&1)" = "1777 root"
check "the unit is enabled" test -L "$root/etc/systemd/system/multi-user.target.wants/quordaemon.service"

unit="$root/lib/systemd/system/quordaemon.service"
if command -v systemd-analyze >/dev/null; then
  echo "== systemd-analyze verify"
  # Against a copy of the package beside this system's units, with the
  # package's manual pages for Documentation=.
  verify="$work/verify"
  mkdir -p "$verify/usr/lib/systemd/system"
  dpkg-deb -x "$deb" "$verify"
  cp -an /usr/lib/systemd/system/. "$verify/usr/lib/systemd/system/"
  out=$(MANPATH="$verify/usr/share/man" systemd-analyze verify --root="$verify" quordaemon.service 2>&1)
  check "systemd-analyze verify is clean: $out" test $? -eq 0 -a -z "$out"
else
  echo "== (no systemd-analyze here: the unit is not verified)"
fi

echo "== the daemon, started as the unit starts it"
# The absolute links of the installation root point into the scratch root,
# and so do the installation root and the transport directory the unit
# names.
for link in $(find "$root/var/lib/quor" -type l); do
  target=$(readlink "$link")
  [[ $target == /* ]] && ln -sfn "$root$target" "$link"
done
environment=(PATH=/usr/sbin:/usr/bin:/sbin:/bin TMPDIR="$work")
for assignment in $(sed -n 's/^Environment=//p' "$unit"); do
  case $assignment in
    MOXGLBL0000=* | TEV_DIR=*) environment+=("${assignment%%=*}=$root${assignment#*=}") ;;
    *) environment+=("$assignment") ;;
  esac
done
# unit_command KEY N: the Nth KEY= command line of the unit, its program
# taken from the scratch root.
unit_command() {
  sed -n "s/^$1=//p" "$unit" | sed -n "${2}p" | sed "s|^/|$root/|"
}
run() { env -i "${environment[@]}" "$@"; }
quorctl() { run "$root/usr/bin/quorctl" "$@"; }
log="$root/var/log/quor/quordaemon.log"
pid_file="$root/var/lib/quor/tmp/quordaemon.pid"

# A pid file left by a daemon that did not stop in order names a live
# process after a reboot (here: pid 1); the boot's tmpfiles run removes it.
echo 1 >"$pid_file"
systemd-tmpfiles --root="$root" --create --remove --boot quordaemon.conf
check "the boot removes a stale pid file" test ! -e "$pid_file"

check "ExecStartPre (check-config) passes" run $(unit_command ExecStartPre 1)
(exec env -i "${environment[@]}" $(unit_command ExecStart 1)) &
starter=$!
wait "$starter"
check "ExecStart exits 0 once the daemon has detached" test $? -eq 0
recorded=$(cat "$pid_file" 2>&1)
check "the pid file names the process that started it ($recorded, $starter), which has exited" \
  test "$recorded" = "$starter" -a ! -d "/proc/$starter"
status=$(run $(unit_command ExecStartPost 1))
check "ExecStartPost (quorctl status) gets the daemon's answer: $status" test $? -eq 0
daemon=$(sed -n 's/^Status of quordaemon, pid=\([0-9]*\),.*/\1/p' <<<"$status")
check "the daemon runs detached (pid '$daemon')" test -n "$daemon" -a -d "/proc/$daemon"

for n in 1 2; do
  check "ExecReload $n passes" run $(unit_command ExecReload $n)
done

echo "== log rotation while the daemon runs"
sed "s|/var/log/quor|$root/var/log/quor|" "$root/etc/logrotate.d/quordaemon" >"$work/logrotate.conf"
check "logrotate rotates the log" logrotate -f -s "$work/logrotate.state" "$work/logrotate.conf"
check "the rotated log keeps the lines so far" grep -q 'QUOR0400I' "$log.1"
quorctl refresh /nonexistent.config >/dev/null 2>&1  # logs message 109
check "the next line goes to the new log" grep -q 'QUOR0109E' "$log"
check "the new log is private to root" test "$(stat -c '%a %U' "$log" 2>&1)" = "640 root"

echo "== stop: SIGTERM"
kill -TERM "$daemon"
for _ in $(seq 100); do [ -d "/proc/$daemon" ] || break; sleep 0.1; done
check "the daemon ends on SIGTERM" test ! -d "/proc/$daemon"
daemon=""
check "it stopped in order (exit status 0, message 401)" grep -q 'QUOR0401I' "$log"
check "it removed its pid file" test ! -e "$pid_file"

echo "== bash completion"
completions=$(PATH="$root/usr/bin:$PATH" bash -c '
  source "$1/usr/share/bash-completion/completions/quorctl"
  complete_words() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quorctl; echo "${COMPREPLY[*]}"; }
  complete_words quorctl check-c
  complete_words quorctl --timeout 3 status --f' _ "$root")
check "commands and their options complete: $completions" test "$completions" = $'check-config\n--full'

echo "== upgrade, then purge"
echo "# a local change" >>"$root/etc/quor/quor.config"
dpkg_root -i "$deb"
check "an upgrade keeps local changes to the configuration" grep -q '^# a local change' "$root/etc/quor/quor.config"
dpkg_root --purge quordaemon
left=$(find "$root" -mindepth 1 ! -type d ! -path "$root/var/lib/dpkg/*")
check "a purge leaves nothing behind: $left" test -z "$left"
check "a purge removes the transport directory it made" test ! -e "$root/tmp/tev"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "All package checks passed."
