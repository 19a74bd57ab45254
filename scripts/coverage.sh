#!/usr/bin/env bash
# coverage.sh: runs the tests of all three builds with counters in the product, and tells which lines of src/ none of them
# reached. Leaves build/coverage/lines.txt (what was not reached), summary.txt and html/ (everything, to look at). Fails
# when less than 98 % of the lines, 90 % of the branches or not all functions were reached, and for a line that was not
# reached without a word of why.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

"$ROOT/scripts/prepare.sh" build run x86 coverage
out=$BUILD/coverage
mkdir -p "$out"
find "$out" -name '*.gcda' -delete

# Without the end-to-end tests: what only they pass is not looked at closely enough.
# The counters live in the product's process: they allocate, which the strictest tests of leaks notice, and a process
# that is killed loses its counts. So failures are told and do not end this.
step "Building and running the tests with counters"
KELDA_BUILD=$out KELDA_CMAKE_OPTIONS=-DKELDA_COVERAGE=ON "$ROOT/scripts/test.sh" native x64 x86 ||
  note "not all tests passed with counters in the product"

step "Adding up"
traces=()
cd "$ROOT"
# Not all of the build is searched: a Wine prefix lies in it, whose drive Z: is the whole machine.
for what in native x64 x86; do
  gcov=gcov
  [[ $what != x64 ]] || gcov=x86_64-w64-mingw32-gcov-posix
  [[ $what != x86 ]] || gcov=i686-w64-mingw32-gcov-posix
  gcovr --root "$ROOT" --filter src/ --gcov-executable "$gcov" --exclude-throw-branches --exclude-unreachable-branches \
    --gcov-ignore-parse-errors --json "$out/$what.json" "$out/$what/src" "$out/$what/tests"
  python3 "$ROOT/scripts/coverage.py" --name-by-place "$out/$what.json"
  traces+=(--add-tracefile "$out/$what.json")
done
mkdir -p "$out/html"
status=0
gcovr --root "$ROOT" "${traces[@]}" --json "$out/all.json" --txt "$out/summary.txt" --html-details "$out/html/index.html" \
  --exclude-throw-branches --exclude-unreachable-branches --print-summary --fail-under-line 98 --fail-under-branch 90 || status=$?
python3 "$ROOT/scripts/coverage.py" "$out/all.json" "$ROOT" "$out/lines.txt" || status=1
exit "$status"
