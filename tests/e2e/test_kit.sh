#!/usr/bin/env bash
# The test programs as they are handed to people with a Windows machine: packed, unpacked and started by run.cmd, under
# Wine's cmd and without anything of this folder.
# shellcheck source=tests/e2e/common.sh
# shellcheck disable=SC2016 # inner shells expand their own
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-test-kit-$arch
rm -rf "$work/first" "$work/second" "$work/here"
mkdir -p "$work/here"
check "the kit is packed" "$ROOT/scripts/package-tests.sh" --out "$work/first" "$arch"
"$ROOT/scripts/package-tests.sh" --out "$work/second" "$arch" >/dev/null
check "a second run gives the same bytes" diff -r "$work/first" "$work/second"
python3 -m zipfile -e "$work/first/keldaksp-tests-$arch.zip" "$work/here"
start_display
use_prefix "$arch" "$work/prefix"
cd "$work/here/keldaksp-tests-$arch" || exit
find . -type f | sort >"$work/before.txt"

# run NAME STATUS LAST-LINE FILTER
run() {
  local status=0
  GTEST_FILTER=$4 on "$arch" timeout -k 10 600 "$WINE" cmd /c run.cmd nopause >"$work/said.txt" 2>&1 </dev/null || status=$?
  check "$1" bash -c '(($1 == $2)) && tail -n 1 "$3" | tr -d "\r" | grep -qxE "$4" || { cat "$3"; exit 1; }' - \
    "$status" "$2" "$work/said.txt" "$3"
}

run "run.cmd runs every program and counts" 0 '[1-9][0-9]+ passed, 0 failed' '*Text*:*Blob*:VersionResource*:*Router*:*Import*:*RsaPair*:*Limits*:Soak.Fixed*'
check "every program ran" bash -c '[[ $(grep -cE "^\[[0-9]+/" "$1") == $(ls bin/*_tests.exe | wc -l) ]]' - "$work/said.txt"
check "the report tells the system" grep -q 'Windows' report.txt
check "and every case" grep -q '^\[       OK \]' report.txt
check "and the sum" bash -c 'diff <(tail -n 1 report.txt) <(tail -n 1 "$1")' - "$work/said.txt"
check "nothing else is left behind" bash -c 'diff "$1" <(find . -type f -not -name report.txt | sort)' - "$work/before.txt"
# A kit whose provider is missing.
rm bin/keldaksp.dll
run "failures are counted" 1 '[0-9]+ passed, [1-9][0-9]* failed' 'VersionResource*'
