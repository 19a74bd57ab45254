#!/usr/bin/env bash
# test.sh [--no-build] [native] [x64] [x86] [e2e] [check] [wine10]: prepares the machine, builds and runs the tests (without
# names: all but wine10, which are the Windows programs once more, under the newest Wine that Debian offers). The last line is "N passed, N failed"; the exit status is 0 only when something ran and nothing failed.
#
# CTest runs them; what counts is what the programs and scripts report themselves (test_report.py).
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
    native | x64 | x86 | e2e | check | wine10) wanted[$part]=1 ;;
    all) wanted=([native]=1 [x64]=1 [x86]=1 [e2e]=1 [check]=1) ;;
    *) die "unknown part $part; known are: native x64 x86 e2e check wine10" ;;
  esac
done

passed=0
failures=()
started=$SECONDS
declare -A running=() # process groups
results=$BUILD/test-results
totals=$results/totals

finish() {
  local status=$? kind rest group arch
  for group in "${running[@]+"${running[@]}"}"; do
    kill -- "-$group" 2>/dev/null || true
  done
  for arch in x64 x86; do
    "$ROOT/scripts/desktop.sh" stop "$arch" "$BUILD/$arch"
  done
  if [[ -f $totals ]]; then
    while read -r kind rest; do
      if [[ $kind == failed ]]; then
        failures+=("$rest")
      else
        passed=$((passed + kind))
      fi
    done <"$totals"
  fi
  if ((status != 0)); then
    failures+=("the test run itself stopped early (status $status)")
  elif ((passed + ${#failures[@]} == 0)); then
    failures+=("nothing ran")
  fi
  if ((${#failures[@]})); then
    printf '\nFailed:\n'
    printf '  %s\n' "${failures[@]}"
  fi
  printf '\nTook %d min %d s.\n' $(((SECONDS - started) / 60)) $(((SECONDS - started) % 60))
  printf '%d passed, %d failed\n' "$passed" "${#failures[@]}"
  exit $((${#failures[@]} > 0))
}
trap finish EXIT
trap 'exit 130' INT TERM

# start_tests NAME FOLDER CTEST-OPTION...: starts CTest in a build folder, as a process group of its own. Whole outputs, so that
# all lines of a script are counted.
start_tests() {
  local name=$1 folder=$2
  shift 2
  setsid ctest --test-dir "$folder" --no-tests=error --test-output-size-passed 100000000 --test-output-size-failed 100000000 \
    --output-junit "$results/$name.xml" "$@" >"$results/$name.log" 2>&1 </dev/null &
  running[$name]=$!
}

# await_tests NAME FOLDER: waits for that CTest and adds what its tests report.
await_tests() {
  local name=$1 folder=$2 status=0
  wait "${running[$name]}" || status=$?
  unset "running[$name]"
  if [[ -f $results/$name.xml ]]; then
    python3 "$ROOT/scripts/test_report.py" "$folder" "$results/$name.xml" "$totals"
  else
    cat "$results/$name.log"
    failures+=("$name: CTest ended with status $status without a report")
  fi
}

# run_tests NAME FOLDER CTEST-OPTION...
run_tests() {
  start_tests "$@"
  await_tests "$1" "$2"
}

purposes=(build run)
[[ ! -v wanted[x86] && ! -v wanted[e2e] && ! -v wanted[wine10] ]] || purposes+=(x86)
[[ ! -v wanted[check] ]] || purposes+=(check)
[[ ! -v wanted[e2e] ]] || purposes+=(package)
[[ ! -v wanted[wine10] ]] || purposes+=(x86 wine10)
step "Preparing the machine"
"$ROOT/scripts/prepare.sh" "${purposes[@]}"

builds=()
[[ ! -v wanted[native] ]] || builds+=(native)
[[ ! -v wanted[x64] && ! -v wanted[e2e] && ! -v wanted[wine10] ]] || builds+=(x64)
[[ ! -v wanted[x86] && ! -v wanted[e2e] && ! -v wanted[wine10] ]] || builds+=(x86)
# A build that fails takes its tests with it, and leaves the others.
declare -A missing=()
for what in "${builds[@]+"${builds[@]}"}"; do
  if [[ $build ]] && ! "$ROOT/scripts/build.sh" "$what"; then
    failures+=("the $what build failed")
    missing[$what]=1
    [[ $what != x64 ]] || unset "wanted[check]"
  fi
done

rm -rf "$results" "$BUILD"/{native,x64,x86}/test-results
mkdir -p "$results"

# The checks need nothing but the builds.
if [[ -v wanted[check] ]]; then
  start_tests check "$BUILD/x64" -C check -L '^check$'
  renice -n 10 -p "${running[check]}" >/dev/null
fi

if [[ -v wanted[native] && ! -v missing[native] ]]; then
  step "Pure logic, natively under the sanitizers"
  run_tests native "$BUILD/native" -j "$(nproc)"
fi
# Each width has a desktop and a Wine prefix of its own, and the tests of one leave most of the machine idle.
for arch in x64 x86; do
  [[ (-v wanted[$arch] || -v wanted[e2e]) && ! -v missing[$arch] ]] || continue
  only=()
  [[ -v wanted[e2e] ]] || only=(-LE '^e2e$')
  [[ -v wanted[$arch] ]] || only=(-L '^e2e$')
  start_tests "$arch" "$BUILD/$arch" -j 2 "${only[@]+"${only[@]}"}"
done
for arch in x64 x86; do
  [[ -v running[$arch] ]] || continue
  step "Windows programs, $arch, and end to end on a soft token"
  await_tests "$arch" "$BUILD/$arch"
done
if [[ -v wanted[wine10] ]]; then
  for arch in x64 x86; do
    [[ ! -v missing[$arch] ]] || continue
    step "Windows programs, $arch, under Wine 10"
    KELDA_WINE=10 start_tests "$arch-wine10" "$BUILD/$arch" -j 2 -LE '^e2e$'
    await_tests "$arch-wine10" "$BUILD/$arch"
  done
fi
if [[ -v wanted[check] ]]; then
  step "Checks of sources and products"
  await_tests check "$BUILD/x64"
fi
