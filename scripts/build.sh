#!/usr/bin/env bash
# build.sh [x64] [x86] [native]: builds into build/<what> (without arguments: x64 and x86).
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

(($#)) || set -- x64 x86
for what in "$@"; do
  [[ $what =~ ^(x64|x86|native)$ ]] || die "unknown build $what; known are: x64 x86 native"
done
"$ROOT/scripts/prepare.sh" build
mkdir -p "$BUILD"
for what in "$@"; do
  step "Building $what"
  cmake -S "$ROOT" --preset "$what" -B "$BUILD/$what" \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >"$BUILD/$what.configure.log" 2>&1 || {
    cat "$BUILD/$what.configure.log" >&2
    die "the $what build could not be configured"
  }
  cmake --build "$BUILD/$what" -j "${KELDA_JOBS:-$(nproc)}" || die "the $what build failed"
done
