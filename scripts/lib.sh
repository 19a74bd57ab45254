# shellcheck shell=bash
# Shared by the scripts in this folder; sourced, not run.
set -euo pipefail

# --help of each script is the comment at its head.
case ${1-} in
  -h | --help)
    sed -n '2,/^# shellcheck/{/^# shellcheck/d;s/^# \{0,1\}//p}' "$0"
    exit 0
    ;;
esac

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# Everything that is built or made while running goes here.
BUILD=$(realpath -m "${KELDA_BUILD:-$ROOT/build}")
# The private i386 root for 32-bit Wine and what it needs is large and the same for every checkout, so it outlives a build
# folder.
CACHE=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/keldaksp
I386_ROOT=${KELDA_I386_ROOT:-$CACHE/i386-bookworm}
# Another one has Wine 10 for both widths. Programs run there when KELDA_WINE is 10 (scripts/test.sh wine10).
WINE10_ROOT=${KELDA_WINE10_ROOT:-$CACHE/wine10-trixie}

step() { printf '\n== %s\n' "$*"; }
note() { printf '   %s\n' "$*"; }
die() {
  printf '\n%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

as_root() {
  if ((EUID == 0)); then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    die "this needs root rights and there is no sudo: $*"
  fi
}

# need_packages PACKAGE...: installs those that are not installed.
need_packages() {
  local missing=() package
  for package in "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  step "Installing ${missing[*]}"
  as_root apt-get -o DPkg::Lock::Timeout=300 update -qq || note "the package lists could not be renewed; trying with those at hand"
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
    die "these packages could not be installed: ${missing[*]}"
}

# ---- 32-bit programs -------------------------------------------------------------------------------------------------

# how_to_run_x86: prints "root" (the private i386 root), "host" (wine32 of this machine) or nothing (not prepared).
how_to_run_x86() {
  if [[ -x $I386_ROOT/usr/lib/wine/wine ]] && can_mount; then
    echo root
  elif [[ -x /usr/lib/wine/wine && -x /usr/lib/i386-linux-gnu/wine/i386-unix/ntdll.so ]]; then
    echo host
  fi
}

# A mount namespace of one's own: nothing that is mounted there outlives the command.
can_mount() { as_root unshare -m true 2>/dev/null; }

# in_root DIR FOLDER USER:GROUP COMMAND...: runs COMMAND inside the private root DIR, in FOLDER.
in_root() {
  as_root unshare -m "$ROOT/scripts/in-root.sh" "$1" "$ROOT" "$BUILD" "${@:2}"
}

# on ARCH COMMAND...: runs COMMAND where the Wine of that width is, in the current folder and environment.
on() {
  local arch=$1 root=
  shift
  if [[ ${KELDA_WINE-} == 10 ]]; then
    root=$WINE10_ROOT
  elif [[ $arch == x86 ]]; then
    X86_WAY=${X86_WAY:-$(how_to_run_x86)} # once, as it takes as long as a small program
    [[ $X86_WAY != root ]] || root=$I386_ROOT
  fi
  if [[ ! $root ]]; then
    "$@"
    return
  fi
  local pass=() name
  for name in DISPLAY HOME PATH WINEDEBUG WINEPREFIX WINEARCH WINEDLLOVERRIDES WINEPATH WINEDLLPATH LANG SOFTHSM2_CONF \
    "${!KELDA_@}" "${!GTEST_@}"; do
    [[ -v $name ]] && pass+=("$name=${!name}")
  done
  in_root "$root" "$PWD" "$(id -u):$(id -g)" env -i "${pass[@]}" "$@"
}

# why_no_soft_token ARCH: prints why programs of that width cannot have a soft token here; nothing when they can. The token
# is Linux code of the programs' own width, and so is SoftHSM.
why_no_soft_token() {
  [[ $1 == x86 ]] || return 0
  if [[ $(how_to_run_x86) != root ]]; then
    echo "32-bit SoftHSM lies in the private i386 root, which is not there or may not be mounted (scripts/prepare.sh x86)"
  elif [[ ! -e $I386_ROOT/usr/lib/softhsm/libsofthsm2.so || ! -x $I386_ROOT/usr/bin/g++ ]]; then
    echo "the private i386 root lacks SoftHSM or a compiler (scripts/prepare.sh x86)"
  fi
}

# ---- Wine ------------------------------------------------------------------------------------------------------------

export WINEDEBUG=${WINEDEBUG:--all}
export PATH=/usr/lib/wine:$PATH

# Fonts (above all Tahoma) and colours are to be Windows' own; without a window manager, Wine waits two seconds for each
# closing window unless windows are unmanaged.
prefix_settings() {
  local managed=$1 name
  printf 'REGEDIT4\r\n\r\n'
  [[ $managed ]] || printf '[HKEY_CURRENT_USER\\Software\\Wine\\X11 Driver]\r\n"Managed"="N"\r\n\r\n'
  printf '[HKEY_CURRENT_USER\\Control Panel\\Colors]\r\n"ButtonFace"="240 240 240"\r\n'
  for name in ActiveTitle InactiveTitle GradientActiveTitle GradientInactiveTitle; do
    printf '"%s"="153 180 209"\r\n' "$name"
  done
  printf '"TitleText"="0 0 0"\r\n"InactiveTitleText"="0 0 0"\r\n'
}

# select_prefix ARCH DIR: the programs that follow run in that Wine prefix.
select_prefix() {
  export WINEPREFIX=$2
  if [[ $1 == x64 ]]; then
    export WINEARCH=win64 WINE=wine64
  else
    export WINEARCH=win32 WINE=wine
    X86_WAY=${X86_WAY:-$(how_to_run_x86)}
  fi
}

# use_prefix ARCH DIR [managed]: makes the Wine prefix when it is not there, and selects it. Needs a display. Only a
# prefix for a person's desktop leaves its windows to the window manager.
use_prefix() {
  local arch=$1 dir=$2 managed=${3:-}
  select_prefix "$arch" "$dir"
  PREFIXES+=("$arch $dir")
  if [[ ! -e $dir/.ready-2 ]]; then
    step "Making a Wine prefix ($arch)"
    rm -rf "$dir"
    mkdir -p "$(dirname "$dir")"
    # No mono and no gecko: nothing here needs them, and they would ask.
    WINEDLLOVERRIDES="mscoree=;mshtml=" on "$arch" "$WINE" wineboot -i >/dev/null 2>&1 || die "Wine could not make $dir"
    cp /usr/share/wine/fonts/{marlett,tahoma,tahomabd}.ttf "$dir/drive_c/windows/Fonts/"
    prefix_settings "$managed" >"$dir/settings.reg"
    on "$arch" "$WINE" reg import "$(windows_path "$dir/settings.reg")" >/dev/null || die "Wine could not set up $dir"
    on "$arch" wineserver -w
    touch "$dir/.ready-2"
  fi
}

# start_display: an X server of our own on a free display, in DISPLAY.
start_display() {
  local pipe
  pipe=$(mktemp -u)
  mkfifo "$pipe"
  Xvfb -displayfd 5 -screen 0 1024x768x24 -nolisten tcp 5>"$pipe" >/dev/null 2>&1 &
  XVFB_PID=$!
  local number=
  read -r -t 60 number <"$pipe" || true
  rm -f "$pipe"
  [[ $number ]] || die "Xvfb did not start"
  export DISPLAY=:$number
}

# assemble_app ARCH DIR: installs keldactl, the provider and the stand-ins side by side in DIR and sets the environment in
# which programs use them.
assemble_app() {
  local arch=$1 dir=$2 component
  for component in product client standins; do
    cmake --install "$BUILD/$arch" --component "$component" --prefix "$dir" >/dev/null ||
      die "what scripts/build.sh $arch makes is missing"
  done
  use_standins "$dir"
}

# use_standins DIR: the environment in which programs use the stand-ins in DIR, which lie beside them.
use_standins() {
  # The part of the soft token that is Linux code.
  export WINEDLLPATH=$1
  export WINEDLLOVERRIDES="bcrypt,ncrypt,winscard,keldapkcs11=n,b;mscoree=;mshtml="
}

# windows_path FILE: FILE, absolute, as Wine's programs name it.
windows_path() {
  local path
  path=$(realpath -m "$1")
  printf 'Z:%s' "${path//\//\\}"
}

# ---- Dialogs ---------------------------------------------------------------------------------------------------------

# picture_of WINDOW FILE: waits until the window has been drawn, that is until two pictures in a row are equal and not
# of one colour.
picture_of() {
  local window=$1 file=$2 tries sum last=
  for ((tries = 0; tries < 100; tries++)); do
    import -window "$window" "$file" 2>/dev/null || true
    sum=$(identify -format '%k %#' "$file" 2>/dev/null || true)
    [[ $sum != "$last" || ! $sum || $sum == "1 "* ]] || return 0
    last=$sum
    sleep 0.1
  done
  return 1
}

PREFIXES=()
XVFB_PID=
# leave_nothing: ends what use_prefix and start_display started; for an EXIT trap.
leave_nothing() {
  local entry
  for entry in "${PREFIXES[@]+"${PREFIXES[@]}"}"; do
    WINEPREFIX=${entry#* } on "${entry%% *}" wineserver -k >/dev/null 2>&1 || true
    WINEPREFIX=${entry#* } on "${entry%% *}" wineserver -w >/dev/null 2>&1 || true
  done
  if [[ $XVFB_PID ]]; then
    kill "$XVFB_PID" 2>/dev/null || true
    wait "$XVFB_PID" 2>/dev/null || true
  fi
  PREFIXES=()
  XVFB_PID=
}
