#!/usr/bin/env bash
# The manual pages render without a single warning, by mandoc's lint and by
# groff (what man uses), so the markdown they are made from stays fit for
# them.
#
#   tests/man_lint.sh PAGE...
set -uo pipefail
status=0
for page in "$@"; do
  out=$(mandoc -T lint -W warning "$page" 2>&1)
  if command -v groff >/dev/null; then
    out+=$(groff -t -wall -man -Tutf8 -z "$page" 2>&1)
  fi
  if [ -n "$out" ]; then
    echo "$page:"
    echo "$out"
    status=1
  fi
done
exit $status
