#!/usr/bin/env bash
# Builds with coverage counters, runs every test, and prints the line and
# branch coverage of src/, lib/, tools/ and agents/ (each, and together).
# The daemon and the agents write their counters when the tests stop them.
#
#   scripts/coverage.sh            build in build-cov, run the tests, summarize
#   scripts/coverage.sh --summary  summarize the counters already in build-cov
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh gcovr
# gcovr finds the sources by the paths the objects record: a ccache base
# directory would make them relative to the compiler's directory.
unset CCACHE_BASEDIR

if [ "${1:-}" != "--summary" ]; then
  find build-cov -name '*.gcda' -delete 2>/dev/null || true
  cmake -S . -B build-cov -DCMAKE_BUILD_TYPE=Debug -DQUOR_COVERAGE=ON -DQUOR_MAN=OFF >/dev/null
  cmake --build build-cov -j"$(nproc)"
  # Agents run under other accounts: they must be able to write their
  # counters beside the objects.
  find build-cov -type d -name '*.dir' -exec chmod a+rwx {} +
  ctest --test-dir build-cov -j"$(nproc)" --output-on-failure || echo "(some tests failed; their coverage counts anyway)"
fi

summary=$(mktemp)
trap 'rm -f "$summary"' EXIT
gcovr --root . --object-directory build-cov --exclude-throw-branches --exclude-unreachable-branches \
  --filter 'src/' --filter 'lib/' --filter 'tools/' --filter 'agents/' --json-summary "$summary" >/dev/null
python3 - "$summary" <<'PY'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
totals = {}
for f in files:
    top = f["filename"].split("/")[0]
    for key in (top, "all"):
        t = totals.setdefault(key, [0, 0, 0, 0])
        t[0] += f["line_covered"]; t[1] += f["line_total"]
        t[2] += f["branch_covered"]; t[3] += f["branch_total"]
print(f"{'':8} {'lines':>16} {'branches':>16}")
for key in ("src", "lib", "tools", "agents", "all"):
    lc, lt, bc, bt = totals.get(key, [0, 0, 0, 0])
    pct = lambda a, b: f"{100.0 * a / b:5.1f}%" if b else "   - "
    print(f"{key:8} {lc:5}/{lt:<5} {pct(lc, lt)} {bc:5}/{bt:<5} {pct(bc, bt)}")
PY
