#!/usr/bin/env bash
# mutate.sh [COUNT [SEED [NUMBER,NUMBER...]]]: makes COUNT small changes (150 unless given) of the product's sources, one
# at a time, at places chosen by SEED (1 unless given) over all files of src/: a flipped comparison, another constant or
# message, a dropped line, two checks or two lines of the log swapped. Each is built, and the native and x64 tests run
# until one fails. Reports the changes that no test noticed, but for those that docs/testing.md explains. With NUMBERs
# only those changes of the seed are tried. One copy of the committed tree for each core; about half an hour for 100
# changes on two cores.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

count=${1:-150}
seed=${2:-1}
numbers=${3-}
jobs=${KELDA_JOBS:-$(nproc)}

"$ROOT/scripts/prepare.sh" build run
need_packages python3 procps
trap leave_nothing EXIT
trap 'exit 130' INT TERM
start_display

workers=()
for ((worker = 1; worker <= jobs; worker++)); do
  folder=$BUILD/mutation/$worker
  rm -rf "$folder/tree"
  mkdir -p "$folder/tree"
  git -C "$ROOT" archive HEAD | tar -xm -C "$folder/tree"
  for what in native x64; do
    # Each file is compiled once for each mutant, so that optimizing costs more than it brings. The builds lie in the
    # tree as those of a checkout do: the compiler's cache then has what is compiled alike in both.
    cmake -S "$folder/tree" --preset "$what" -B "$folder/tree/build/$what" -DCMAKE_CXX_FLAGS_RELEASE=-O0 \
      -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >"$folder/$what.configure.log" 2>&1 || {
      cat "$folder/$what.configure.log" >&2
      die "the $what build could not be configured"
    }
  done
  use_prefix x64 "$folder/prefix"
  workers+=(--worker "$folder=$folder/prefix")
done

step "Mutants"
python3 "$ROOT/scripts/mutants.py" --count "$count" --seed "$seed" --numbers "$numbers" \
  --document "$ROOT/docs/testing.md" --report "$BUILD/mutation/report-$seed.txt" "${workers[@]}" &
runner=$!
trap 'kill "$runner"; wait "$runner"; exit 130' INT TERM
wait "$runner"
