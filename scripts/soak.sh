#!/usr/bin/env bash
# soak.sh [CALLS] [x64] [x86]: random sequences of calls to all entries, with failing allocations, platform calls and
# token calls: CALLS calls (one million unless given) for each width and each of
#   plain   the shipped DLL
#   guard   the same, each block of its heap at the end of a page, released blocks inaccessible
#   ubsan   a DLL that traps at the first undefined operation, on the guard heap
#   reload  the shipped DLL, unloaded and loaded again after every 20 sequences of 100 calls; it may keep nothing
#   shared  (x86 only) the same in a program with a shared libgcc
# KELDA_SOAK_VARIANTS names those to be run (all unless given).
# KELDA_SOAK_SEED is the first seed (1 unless given). A failing seed is printed with the command that replays it.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

calls=1000000
if [[ ${1-} =~ ^[0-9]+$ ]]; then
  calls=$1
  shift
fi
(($#)) || set -- x64 x86
first=${KELDA_SOAK_SEED:-1}
variants=${KELDA_SOAK_VARIANTS:-plain guard ubsan reload shared}
wanted() { [[ " $variants " == *" $1 "* ]]; }
# A process' share: what has to stay behind for its life (the cached PINs) stays small.
share=100000
# No share needs as many seeds: a sequence makes at least a hundred calls.
seeds=$((share / 100))

purposes=(build run)
for arch in "$@"; do
  [[ $arch =~ ^(x64|x86)$ ]] || die "unknown width $arch; known are: x64 x86"
  [[ $arch != x86 ]] || purposes+=(x86)
done
"$ROOT/scripts/prepare.sh" "${purposes[@]}"

# build_soak ARCH DIR OPTION...: the DLL and soak_tests.
build_soak() {
  local arch=$1 dir=$2
  shift 2
  step "Building ${dir#"$BUILD"/}"
  mkdir -p "$dir"
  cmake -S "$ROOT" --preset "$arch" -B "$dir" -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    "$@" >"$dir/configure.log" 2>&1 || {
    cat "$dir/configure.log" >&2
    die "the build could not be configured"
  }
  cmake --build "$dir" -j "${KELDA_JOBS:-$(nproc)}" --target keldaksp soak_tests || die "the build failed"
}

trap leave_nothing EXIT
trap 'exit 130' INT TERM

# soak ARCH NAME DIR OPTION...
soak() {
  local arch=$1 name=$2 dir=$3 done=0 part seed=$first begun=$SECONDS
  shift 3
  wanted "$name" || return 0
  step "$name, $arch"
  while ((done < calls)); do
    part=$((calls - done < share ? calls - done : share))
    (cd "$dir/bin" && on "$arch" timeout -k 10 3600 "$WINE" soak_tests.exe --seed "$seed" --calls "$part" "$@") \
      >"$dir/soak.log" 2>&1 </dev/null || {
      tr -d '\r' <"$dir/soak.log"
      die "$name, $arch: failed; the program is $dir/bin/soak_tests.exe"
    }
    tr -d '\r' <"$dir/soak.log" | sed -n 's/^soak: \([0-9]* calls from.*\)/   \1/p'
    done=$((done + part))
    seed=$((seed + seeds))
  done
  note "$name, $arch: $calls calls in $((SECONDS - begun)) s, nothing found"
}

for arch in "$@"; do
  build_soak "$arch" "$BUILD/soak/$arch"
  ! wanted ubsan || build_soak "$arch" "$BUILD/soak/$arch-ubsan" -DKELDA_UBSAN_TRAP=ON
done
start_display
for arch in "$@"; do
  use_prefix "$arch" "$BUILD/soak/prefix-$arch"
  soak "$arch" plain "$BUILD/soak/$arch"
  soak "$arch" guard "$BUILD/soak/$arch" --guard
  soak "$arch" ubsan "$BUILD/soak/$arch-ubsan" --guard
  soak "$arch" reload "$BUILD/soak/$arch" --reload 20
  [[ $arch == x64 ]] || soak "$arch" shared "$BUILD/soak/$arch" --reload 20 --shared-runtime
done
printf '\n%d calls for each width and variant (%s), nothing found\n' "$calls" "$variants"
