#!/usr/bin/env bash
# report.sh BUILD: adds up what the tests in BUILD, built with --coverage, ran through. Prints the
# tables, writes BUILD/html, and fails when the library or the tools fall short.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

readonly build=$1
readonly counts=$build/coverage.json
readonly library=(--filter src/ --filter include/korvex/)

# Closing braces have branches of their own, which nobody wrote, and an assertion that fails ends the
# program.
gcovr --root . "$build" "${library[@]}" --filter receiver/ --filter tools/ --exclude-unreachable-branches \
  --exclude-branches-by-pattern '\s*assert\(.*' --json "$build/gathered.json"
python3 -B tests/coverage/without_throws.py "$build/gathered.json" "$counts"
mkdir -p "$build/html"

# report NAME ARGUMENT...: one table; a bar that is not met is remembered.
failed=0
report() {
  echo
  echo "$1"
  shift
  gcovr --root . --add-tracefile "$counts" "$@" --print-summary || failed=1
}

gcovr --root . --add-tracefile "$counts" --html-details "$build/html/index.html"
report "Library, lines (wanted: 100 %)" "${library[@]}" --fail-under-line 100
report "Library, branches (wanted: 100 %)" "${library[@]}" --branches --fail-under-branch 100
report "Receiver, lines (wanted: 95 %)" --filter receiver/ --fail-under-line 95
report "Daemon, lines (wanted: 95 %)" --filter tools/korvexd/ --fail-under-line 95
report "Tool, lines (wanted: 95 %)" --filter tools/korvex/ --filter tools/common/ --fail-under-line 95
echo
echo "in detail: $build/html/index.html"
exit "$failed"
