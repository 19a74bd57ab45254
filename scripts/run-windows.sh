#!/usr/bin/env bash
# run-windows.sh ARCH PROGRAM [ARGUMENT...]: runs a Windows program of a build folder (<folder>/bin/PROGRAM) under Wine, in the
# program's own folder; CMake's emulator for the Windows builds. It runs on the build folder's desktop (scripts/desktop.sh)
# when CTest has started it, otherwise on one that it makes and ends.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

(($# >= 2)) || die "usage: ${0##*/} x64|x86 PROGRAM [ARGUMENT...]"
arch=$1
program=$(realpath "$2")
shift 2
folder=$(realpath "${program%/*}/..")
# The private i386 root sees this folder.
BUILD=$folder

keeper=
[[ ! -f $folder/desktop ]] || read -r keeper DISPLAY <"$folder/desktop"
if [[ $keeper ]] && kill -0 "$keeper" 2>/dev/null; then
  export DISPLAY
  select_prefix "$arch" "$folder/prefix${KELDA_WINE-}"
else
  trap leave_nothing EXIT
  trap 'exit 130' INT TERM
  start_display
  use_prefix "$arch" "$folder/prefix${KELDA_WINE-}"
fi

cd "${program%/*}"
status=0
if [[ ${KELDA_TEST_LOG-} ]]; then
  # Wine's own processes live on and would keep CTest waiting for the end of what is said here.
  mkdir -p "${KELDA_TEST_LOG%/*}"
  on "$arch" "$WINE" "$program" "$@" >"$KELDA_TEST_LOG" 2>&1 </dev/null || status=$?
  tr -d '\r' <"$KELDA_TEST_LOG"
else
  on "$arch" "$WINE" "$program" "$@" || status=$?
fi
exit "$status"
