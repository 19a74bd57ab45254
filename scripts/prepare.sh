#!/usr/bin/env bash
# prepare.sh [build] [run] [x86] [check] [coverage] [fuzz] [bench] [package]: installs what a fresh Debian 12 lacks for these
# purposes (without arguments: build, run and x86). Quick when nothing is missing; can be run again at any time.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

# The i386 root comes by debootstrap from the mirror that apt uses: Debian's own i386 packages on this machine
# (wine32:i386) can be installed only while both architectures' package lists are of the same day.
prepare_x86() {
  [[ ! $(how_to_run_x86) ]] || return 0
  if can_mount; then
    need_packages debootstrap debian-archive-keyring util-linux
    local mirror part=$I386_ROOT.part
    # shellcheck disable=SC2016 # apt's own placeholders
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 2>/dev/null | awk '$2 == "bookworm" { m = $1 } END { print m }')
    mirror=${mirror:-http://deb.debian.org/debian}
    step "Making a private i386 root with 32-bit Wine in $I386_ROOT from $mirror (once; about a minute, 1.1 GB)"
    mkdir -p "$(dirname "$I386_ROOT")"
    as_root rm -rf "$part"
    if as_root debootstrap --variant=minbase --arch=i386 --include=wine32 bookworm "$part" "$mirror" \
      >"$I386_ROOT.log" 2>&1; then
      as_root rm -rf "$part"/var/cache/apt/archives/*.deb "$part"/var/lib/apt/lists/*
      as_root mv "$part" "$I386_ROOT"
      return 0
    fi
    tail -n 3 "$I386_ROOT.log" >&2
    note "debootstrap failed (all of it: $I386_ROOT.log); trying Debian's wine32 instead"
    as_root rm -rf "$part"
  else
    note "nothing may be mounted here, so a private i386 root is of no use; trying Debian's wine32 instead"
  fi
  as_root dpkg --add-architecture i386
  need_packages wine32:i386
  [[ $(how_to_run_x86) ]] || die "32-bit programs cannot be run on this machine"
}

(($#)) || set -- build run x86
[[ -r /etc/debian_version ]] || die "these scripts know Debian's packages only; install the packages named in $0 by hand"
for purpose in "$@"; do
  case $purpose in
    build)
      need_packages cmake ninja-build ccache g++ g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix \
        wine64-tools libwine-dev googletest libp11-kit-dev libcli11-dev nlohmann-json3-dev
      ;;
    run) need_packages wine64 fonts-wine xvfb xauth xdotool imagemagick softhsm2 opensc openssl python3 ;;
    x86) prepare_x86 ;;
    check) need_packages clang clang-format clang-tidy cppcheck shellcheck binutils-mingw-w64-x86-64 python3 ;;
    coverage) need_packages gcovr python3 ;;
    bench) need_packages gnuplot-nox python3 ;;
    fuzz) need_packages clang libclang-rt-14-dev ;; # libFuzzer and the sanitizers' runtime are only recommended by clang
    package) need_packages wixl msitools osslsigncode libengine-pkcs11-openssl git python3 ;;
    *) die "unknown purpose $purpose; known are: build run x86 check coverage fuzz bench package" ;;
  esac
done
note "prepared for: $*"
