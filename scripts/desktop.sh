#!/usr/bin/env bash
# desktop.sh start|stop ARCH FOLDER: starts and ends what the Windows programs of the build folder FOLDER run on, an X server
# of their own and a Wine prefix (FOLDER/prefix, with Wine 10 FOLDER/prefix10). CTest calls it before the first test that needs it
# and after the last. scripts/run-windows.sh finds the desktop in FOLDER/desktop, a line "PID DISPLAY".
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

[[ $# -ge 3 ]] || die "usage: ${0##*/} start|stop ARCH FOLDER"
action=$1
arch=$2
folder=$(realpath -m "$3")
# The private i386 root sees this folder.
BUILD=$folder
record=$folder/desktop

# is_there: whether the recorded desktop still runs.
is_there() { [[ -f $record ]] && kill -0 "$(cut -d' ' -f1 "$record")" 2>/dev/null; }

# keep OWNER: the desktop itself. It ends when it is stopped, and with the process OWNER, however that ends.
keep() {
  trap 'rm -f "$record"; leave_nothing' EXIT
  trap 'exit 0' INT TERM
  start_display
  use_prefix "$arch" "$folder/prefix${KELDA_WINE-}"
  echo "$$ $DISPLAY" >"$record.new"
  mv "$record.new" "$record"
  tail --pid="$1" -f /dev/null &
  local watch=$!
  trap 'kill "$watch" 2>/dev/null; exit 0' INT TERM
  wait "$watch"
}

case $action in
  start)
    ! is_there || die "another run of tests uses $folder"
    rm -f "$record"
    # In a session of its own, so that an interrupt from the keyboard reaches it through OWNER's end only.
    setsid "$0" keep "$arch" "$folder" "$PPID" >"$folder/desktop.log" 2>&1 </dev/null &
    keeper=$!
    until is_there; do
      kill -0 "$keeper" 2>/dev/null || {
        cat "$folder/desktop.log"
        die "there is no desktop for $arch"
      }
      sleep 0.1
    done
    ;;
  stop)
    is_there || exit 0
    keeper=$(cut -d' ' -f1 "$record")
    kill "$keeper"
    tail --pid="$keeper" -s 0.1 -f /dev/null
    ;;
  keep) keep "$4" ;;
  *) die "unknown action $action; known are: start stop" ;;
esac
