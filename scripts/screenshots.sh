#!/usr/bin/env bash
# screenshots.sh [dialogs] [consoles] [installer]: takes the pictures in docs/images anew, from the real programs (without names: all).
#   dialogs    the reader dialog and the PIN dialog, as the demo shows them, and with a wrong and a locked PIN
#   consoles   what keldactl says of a healthy installation and of the log: its text, in a terminal
#   installer  what the package says, with a plain user interface, of a missing token module
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

(($#)) || set -- dialogs consoles installer
work=$BUILD/screenshots
images=$ROOT/docs/images
program='C:\Program Files\Norvale Token Works\keldactl.exe'
worker=
finish() {
  if [[ $worker ]]; then kill "$worker" 2>/dev/null || true; fi
  leave_nothing
}
trap finish EXIT
trap 'exit 130' INT TERM

# keep FILE NAME: makes a picture one of the documentation's.
keep() {
  convert "$1" -strip "$images/$2.png"
  step "Taken: docs/images/$2.png"
}

# An installation as on a user's computer, with the stand-ins beside the client and the token module in the system folder.
install_product() {
  local folder="$WINEPREFIX/drive_c/Program Files/Norvale Token Works" system=$WINEPREFIX/drive_c/windows/system32
  rm -rf "$folder"
  assemble_app x64 "$folder"
  mkdir "$folder/x86"
  cp "$BUILD/x86/bin/keldaksp.dll" "$folder/x86"
  mv "$folder/keldapkcs11.dll" "$system"
  "$WINE" "$program" unregister >/dev/null 2>&1 || true
  "$WINE" "$program" log off >/dev/null
  "$WINE" "$program" register --copy >/dev/null
}

# start_log: switches the log on, an empty one.
start_log() {
  rm -f "$WINEPREFIX/drive_c/keldaksp.log"
  "$WINE" "$program" log on 'C:\keldaksp.log' >/dev/null 2>&1
}

# line_of_log TEXT: waits until the log has it.
line_of_log() {
  local tries
  for ((tries = 0; tries < 300; tries++)); do
    if grep -qF "$1" "$WINEPREFIX/drive_c/keldaksp.log" 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  die "the log never said \"$1\""
}

# pin_dialog: starts a signature, and waits for its dialog; sets worker and window.
pin_dialog() {
  local tries
  printf 'text' >"$work/letter.txt"
  "$WINE" "$program" sign --key Key1 "$(windows_path "$work/letter.txt")" </dev/null >/dev/null 2>&1 &
  worker=$!
  window=
  for ((tries = 0; tries < 300; tries++)); do
    window=$(xdotool search --onlyvisible --name '^Enter PIN for' 2>/dev/null | head -n 1) || true
    if [[ $window ]]; then return 0; fi
    sleep 0.1
  done
  die "no PIN dialog came up"
}

# try_pin PIN TEXT: empties the field, types PIN, and waits for what the dialog says of it.
try_pin() {
  xdotool windowfocus --sync "$window" key shift+Home type "$1"
  xdotool key Return
  line_of_log "$2"
}

# console NAME TITLE FILE: a picture of the text in FILE, in a terminal as wide and high as it.
console() {
  local columns rows terminal window='' tries
  columns=$(awk '{ if (length > w) w = length } END { print w + 1 }' "$3")
  rows=$(wc -l <"$3")
  xterm -T "$2" -geometry "${columns}x$rows" -fa 'DejaVu Sans Mono' -fs 8 -bg '#0c0c0c' -fg '#cccccc' -b 8 \
    -e sh -c "tput civis; head -c -1 '$3'; exec sleep 600" &
  terminal=$!
  for ((tries = 0; tries < 300; tries++)); do
    window=$(xdotool search --onlyvisible --name "^$2\$" 2>/dev/null | head -n 1) || true
    [[ ! $window ]] || break
    sleep 0.1
  done
  [[ $window ]] || die "no terminal came up"
  picture_of "$window" "$work/$1.png" || die "no picture of $2 could be taken"
  kill "$terminal"
  wait "$terminal" 2>/dev/null || true
  keep "$work/$1.png" "$1"
}

# said COMMAND...: keldactl's answer, below its command line.
said() {
  printf '> keldactl %s\n' "$*"
  LC_ALL=C.UTF-8 "$WINE" "$program" "$@" </dev/null 2>&1 | tr -d '\r' || true
}

dialogs() {
  "$ROOT/scripts/demo.sh" --readers 2
  keep "$BUILD/demo/pin-dialog.png" pin-dialog
  keep "$BUILD/demo/reader-dialog.png" reader-dialog
}

wrong_pins() {
  start_log
  pin_dialog
  try_pin 111111 'Incorrect PIN. Retries left: 2'
  picture_of "$window" "$work/wrong.png" && keep "$work/wrong.png" pin-dialog-wrong
  try_pin 222222 'Incorrect PIN. Retries left: 1'
  try_pin 333333 'Pin is locked'
  picture_of "$window" "$work/locked.png" && keep "$work/locked.png" pin-dialog-locked
  xdotool windowfocus --sync "$window" key Escape
  wait "$worker" || true
  worker=
}

consoles() {
  said check >"$work/check.txt"
  console keldactl-check "keldactl check" "$work/check.txt"
  start_log
  "$WINE" "$program" export --key Key1 --out 'C:\key1.pem' </dev/null >/dev/null 2>&1
  "$WINE" "$program" show --key Key2 </dev/null >/dev/null 2>&1 || true
  said log show >"$work/log.txt"
  console keldactl-log "keldactl log show" "$work/log.txt"
}

# The package is installed in a system of its own, with the stand-ins in the product's folder.
installer() {
  local tries folder
  "$ROOT/scripts/package.sh" --out "$work/packages" x64
  rm -rf "$work/prefix-installer"
  use_prefix x64 "$work/prefix-installer"
  folder="$WINEPREFIX/drive_c/Program Files/Norvale Token Works/KSP"
  cmake --install "$BUILD/x64" --component standins --prefix "$folder" >/dev/null
  use_standins "$folder"
  "$WINE" msiexec /i "$(windows_path "$work"/packages/*-x64.msi)" /qb </dev/null >/dev/null 2>&1 &
  worker=$!
  window=
  for ((tries = 0; tries < 600; tries++)); do
    window=$(xdotool search --onlyvisible --name '^Windows Installer$' 2>/dev/null | head -n 1) || true
    [[ ! $window ]] || break
    sleep 0.1
  done
  [[ $window ]] || die "the package never gave its warning"
  picture_of "$window" "$work/warning.png" && keep "$work/warning.png" installer-warning
  xdotool windowfocus --sync "$window" key Return
  wait "$worker" || true
  worker=
}

for part in "$@"; do
  [[ $part =~ ^(dialogs|consoles|installer)$ ]] || die "unknown pictures $part; known are: dialogs consoles installer"
done
"$ROOT/scripts/prepare.sh" build run
need_packages xterm fonts-dejavu-core
"$ROOT/scripts/build.sh" --without-tests x64 x86
mkdir -p "$work" "$images"
[[ " $* " != *" dialogs "* ]] || dialogs
environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=Demo Token" --key Key1)
eval "$environment"
start_display
use_prefix x64 "$work/prefix"
install_product
[[ " $* " != *" consoles "* ]] || consoles
[[ " $* " != *" dialogs "* ]] || wrong_pins
[[ " $* " != *" installer "* ]] || installer
