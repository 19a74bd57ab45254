#!/usr/bin/env bash
# fuzz.sh SECONDS [TARGET...]: runs every fuzz target (or those named) for that many seconds each. What they find is kept
# in build/fuzz/found; what they learn is added to build/fuzz/corpus and used the next time. Exit status 0 when nothing
# was found. To have a finding replayed by every test run, move it to fuzz/found/<target>/.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

[[ ${1-} =~ ^[1-9][0-9]*$ ]] || die "usage: ${0##*/} SECONDS [TARGET...]"
seconds=$1
shift
"$ROOT/scripts/prepare.sh" build fuzz

fuzz=$BUILD/fuzz
step "Building the fuzz targets"
mkdir -p "$fuzz"
cmake -S "$ROOT" --preset native -B "$fuzz/build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DKELDA_FUZZ=ON \
  -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >"$fuzz/configure.log" 2>&1 || {
  cat "$fuzz/configure.log" >&2
  die "the fuzz targets could not be configured"
}
cmake --build "$fuzz/build" -j "${KELDA_JOBS:-$(nproc)}" --target fuzzers || die "the fuzz targets could not be built"
"$ROOT/fuzz/make-corpus.sh" "$fuzz/seeds"

targets=("$@")
if ((${#targets[@]} == 0)); then
  for program in "$fuzz"/build/bin/fuzz_*; do
    targets+=("${program##*/fuzz_}")
  done
fi

findings=0
for target in "${targets[@]}"; do
  program=$fuzz/build/bin/fuzz_$target
  [[ -x $program ]] || die "there is no target $target"
  step "Fuzzing $target for $seconds s"
  mkdir -p "$fuzz/corpus/$target" "$fuzz/found/$target"
  known=()
  [[ ! -d $ROOT/fuzz/found/$target ]] || known=("$ROOT/fuzz/found/$target")
  status=0
  # Blob lengths up to the largest block make eight blocks of 64 MB at most.
  "$program" -max_total_time="$seconds" -max_len=4096 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$fuzz/found/$target/" "$fuzz/corpus/$target" "$fuzz/seeds/$target" "${known[@]+"${known[@]}"}" \
    >"$fuzz/$target.log" 2>&1 || status=$?
  if ((status)); then
    findings=$((findings + 1))
    tail -n 40 "$fuzz/$target.log"
    note "FOUND something (status $status); the input is in $fuzz/found/$target"
  else
    note "$(sed -n 's/^stat::number_of_executed_units: *//p' "$fuzz/$target.log") inputs, nothing found"
  fi
done
printf '\n%d targets, %d with findings\n' "${#targets[@]}" "$findings"
exit $((findings > 0))
