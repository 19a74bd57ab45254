#!/usr/bin/env bash
# build.sh [--without-tests] [x64] [x86] [native]: builds into build/<what> (without names: x64 and x86). Words in
# KELDA_CMAKE_OPTIONS are handed to CMake.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

targets=()
if [[ ${1-} == --without-tests ]]; then
  targets=(keldaksp keldactl installer_actions standin_bcrypt standin_router standin_winscard standin_softtoken)
  shift
fi
(($#)) || set -- x64 x86
for what in "$@"; do
  [[ $what =~ ^(x64|x86|native)$ ]] || die "unknown build $what; known are: x64 x86 native"
done
"$ROOT/scripts/prepare.sh" build
mkdir -p "$BUILD"
read -r -a options <<<"${KELDA_CMAKE_OPTIONS-}"
for what in "$@"; do
  step "Building $what"
  cmake -S "$ROOT" --preset "$what" -B "$BUILD/$what" \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    "${options[@]+"${options[@]}"}" >"$BUILD/$what.configure.log" 2>&1 || {
    cat "$BUILD/$what.configure.log" >&2
    die "the $what build could not be configured"
  }
  cmake --build "$BUILD/$what" -j "${KELDA_JOBS:-$(nproc)}" ${targets:+--target "${targets[@]}"} || die "the $what build failed"
done
