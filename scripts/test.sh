#!/usr/bin/env bash
# test.sh [--no-build] [native] [x64] [x86] [e2e] [check]: prepares the machine, builds and runs the tests (without
# names: all of them). The last line is "N passed, N failed"; the exit status is 0 only when something ran and nothing failed.
#
# What counts: the cases of every GoogleTest program (<build>/<arch>/bin/*_tests[.exe]), and the lines "PASS: name" and
# "FAIL: name" of every script (tests/e2e/*.sh, scripts/check.sh). A program that crashes, hangs or reports no case is
# one failure.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

declare -A wanted=()
build=1
if [[ ${1-} == --no-build ]]; then
  build=
  shift
fi
for part in "${@:-all}"; do
  case $part in
    native | x64 | x86 | e2e | check) wanted[$part]=1 ;;
    all) wanted=([native]=1 [x64]=1 [x86]=1 [e2e]=1 [check]=1) ;;
    *) die "unknown part $part; known are: native x64 x86 e2e check" ;;
  esac
done

passed=0
failed=0
failures=()
limit=300 # seconds for one program
started=$SECONDS
check_pid=
results=$BUILD/test-results

finish() {
  local status=$?
  leave_nothing
  [[ ! $check_pid ]] || kill "$check_pid" 2>/dev/null || true
  if ((status != 0)); then
    fail "the test run itself stopped early (status $status)"
  elif ((passed + failed == 0)); then
    fail "nothing ran"
  fi
  if ((${#failures[@]})); then
    printf '\nFailed:\n'
    printf '  %s\n' "${failures[@]}"
  fi
  printf '\nTook %d min %d s.\n' $(((SECONDS - started) / 60)) $(((SECONDS - started) % 60))
  printf '%d passed, %d failed\n' "$passed" "$failed"
  exit $((failed > 0))
}
trap finish EXIT
trap 'exit 130' INT TERM

fail() {
  failed=$((failed + 1))
  failures+=("$1")
}

# run_program ARCH FILE: one GoogleTest program. Its own words are shown only when something went wrong.
run_program() {
  local arch=$1 file=$2 name log xml status=0 begun=$SECONDS
  name=$(basename "${file%.exe}")
  log=$results/$arch/$name.log
  xml=$results/$arch/$name.xml
  rm -f "$xml"
  local program=(timeout -k 10 "$limit" "$file" "--gtest_output=xml:$xml")
  [[ $arch == native ]] ||
    program=(on "$arch" timeout -k 10 "$limit" "$WINE" "$file" "--gtest_output=xml:Z:$xml")
  (cd "$(dirname "$file")" && "${program[@]}") >"$log" 2>&1 </dev/null || status=$?

  local counts='' tests=0 bad=0 skipped=0
  [[ ! -f $xml ]] || counts=$(grep -o '<testsuites [^>]*' "$xml" || true)
  if [[ $counts =~ tests=\"([0-9]+)\"\ failures=\"([0-9]+)\"\ disabled=\"([0-9]+)\"\ errors=\"([0-9]+)\" ]]; then
    tests=${BASH_REMATCH[1]}
    bad=$((BASH_REMATCH[2] + BASH_REMATCH[4]))
    skipped=$((BASH_REMATCH[3] + $(grep -c 'result="skipped"' "$xml" || true)))
  fi
  passed=$((passed + tests - bad - skipped))
  printf '   %-28s %5d passed %4d failed %4d skipped  %3d s\n' "$name ($arch)" $((tests - bad - skipped)) "$bad" \
    "$skipped" $((SECONDS - begun))
  if ((bad)); then
    local cases i
    mapfile -t cases < <(tr -d '\r' <"$log" | sed -n 's/^\[  FAILED  \] \([^ ,]*\).* (.*ms)$/\1/p' | sort -u)
    for ((i = 0; i < bad; i++)); do
      fail "$name ($arch): ${cases[i]:-(unnamed)}"
    done
    tr -d '\r' <"$log" | grep -v -E '^\[ *(OK|RUN|-+) *\]' | cat -s | head -n 150
  elif ((tests == 0 || status != 0)); then
    if ((status == 124)); then
      fail "$name ($arch): did not end within $limit s"
    else
      fail "$name ($arch): ended with status $status after reporting $tests cases"
    fi
    tail -n 40 "$log" | tr -d '\r'
  fi
}

# start_script FILE [COMMAND...]: starts FILE through COMMAND; its process is in started_pid.
start_script() {
  local file=$1
  shift
  "$@" timeout -k 30 $((3 * limit)) "$file" >"$results/$(basename "$file").log" 2>&1 </dev/null &
  started_pid=$!
}

# run_script FILE [PID]: a script that reports "PASS: name" and "FAIL: name", a line each; one that start_script started
# when there is a PID.
run_script() {
  local file=$1 name log status=0 begun=$SECONDS good bad
  name=${file#"$ROOT/"}
  log=$results/$(basename "$file").log
  [[ ${2-} ]] || start_script "$file"
  wait "${2-$started_pid}" || status=$?
  good=$(grep -c '^PASS: ' "$log" || true)
  bad=$(grep -c '^FAIL: ' "$log" || true)
  passed=$((passed + good))
  printf '   %-28s %5d passed %4d failed               %3d s\n' "$name" "$good" "$bad" $((SECONDS - begun))
  local line
  while read -r line; do
    fail "$name: $line"
  done < <(sed -n 's/^FAIL: //p' "$log")
  if ((bad == 0 && (good == 0 || status != 0))); then
    fail "$name: ended with status $status after reporting $good passed checks"
    bad=1
  fi
  ((bad == 0)) || tail -n 60 "$log"
}

run_programs() {
  local arch=$1 suffix=.exe file found=0
  [[ $arch != native ]] || suffix=
  mkdir -p "$results/$arch"
  for file in "$BUILD/$arch"/bin/*_tests"$suffix"; do
    [[ -x $file ]] || continue
    found=1
    run_program "$arch" "$file"
  done
  ((found)) || fail "no test program for $arch was built"
}

purposes=(build run)
[[ ! -v wanted[x86] ]] || purposes+=(x86)
[[ ! -v wanted[check] ]] || purposes+=(check)
step "Preparing the machine"
"$ROOT/scripts/prepare.sh" "${purposes[@]}"

builds=()
[[ ! -v wanted[native] ]] || builds+=(native)
[[ ! -v wanted[x64] && ! -v wanted[e2e] ]] || builds+=(x64)
[[ ! -v wanted[x86] ]] || builds+=(x86)
# A build that fails takes its tests with it, and leaves the others.
for what in "${builds[@]+"${builds[@]}"}"; do
  if [[ $build ]] && ! "$ROOT/scripts/build.sh" "$what"; then
    fail "the $what build failed"
    unset "wanted[$what]"
    [[ $what != x64 ]] || unset "wanted[e2e]" "wanted[check]"
  fi
done

rm -rf "$results"
mkdir -p "$results"

# The checks need nothing but the builds, and the tests leave most of the machine idle.
if [[ -v wanted[check] ]]; then
  start_script "$ROOT/scripts/check.sh" nice
  check_pid=$started_pid
fi

if [[ -v wanted[native] ]]; then
  step "Pure logic, natively under the sanitizers"
  run_programs native
fi

if [[ -v wanted[x64] || -v wanted[x86] ]]; then
  start_display
fi
for arch in x64 x86; do
  [[ -v wanted[$arch] ]] || continue
  use_prefix "$arch" "$BUILD/test-prefix-$arch"
  step "Windows programs, $arch"
  run_programs "$arch"
done

if [[ -v wanted[e2e] ]]; then
  step "End to end on a soft token"
  for script in "$ROOT"/tests/e2e/*.sh; do
    [[ -x $script ]] || continue
    run_script "$script"
  done
fi

if [[ -v wanted[check] ]]; then
  step "Checks of sources and products"
  run_script "$ROOT/scripts/check.sh" "$check_pid"
  check_pid=
fi
