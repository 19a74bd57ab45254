#!/usr/bin/env bash
# prepare.sh [build] [run] [x86] [check] [coverage] [fuzz] [bench] [package] [wine10]: installs what a fresh
# Debian 12 lacks for these purposes (without arguments: build, run and x86). Quick when nothing is missing; can be run again
# at any time.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

# The private roots: their Debian, its architecture, another architecture whose packages they have, and their packages.
# The i386 root holds Wine, SoftHSM, and what compiles the soft token's Linux half for it; the other one Wine 10 alone.
describe_root() {
  if [[ $1 == "$I386_ROOT" ]]; then
    suite=bookworm arch=i386 foreign='' size="1.3 GB"
    packages=(wine32 libsofthsm2 g++ libp11-kit-dev libwine-dev wine32-tools)
  else
    suite=trixie arch=amd64 foreign=i386 size="2 GB"
    packages=(wine64 wine32:i386)
  fi
}

# is_complete DIR: the root DIR has all of that. One made before that list grew has it not.
is_complete() {
  local suite arch foreign size packages
  describe_root "$1"
  [[ -f $1/.packages && $(<"$1/.packages") == "${packages[*]}" ]]
}

# complete_root DIR MIRROR: installs in the root DIR what it lacks. Programs that run there meanwhile are not disturbed.
complete_root() {
  local dir=${1%.part} mirror=$2 name environment=(DEBIAN_FRONTEND=noninteractive LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin)
  local suite arch foreign size packages
  describe_root "$dir"
  for name in http_proxy https_proxy no_proxy; do
    [[ -v $name ]] && environment+=("$name=${!name}")
  done
  as_root cp -L /etc/resolv.conf /etc/hosts "$1/etc/"
  # shellcheck disable=SC2016 # the inner shell's
  in_root "$1" / 0:0 env -i "${environment[@]}" sh -euc '
    echo "deb $0 $1 main" >/etc/apt/sources.list
    [ -z "$2" ] || dpkg --add-architecture "$2"
    shift 2
    dpkg --configure -a
    apt-get -qq -o APT::Update::Error-Mode=any update
    apt-get -y -qq --no-install-recommends install "$@"
    rm -rf /var/cache/apt/archives/*.deb /var/lib/apt/lists/*
    echo "$*" >/.packages' "$mirror" "$suite" "$foreign" "${packages[@]}" </dev/null
}

# make_root DIR MIRROR: a whole root in DIR, which appears there only when it is complete.
make_root() {
  local dir=$1 mirror=$2 part=$1.part suite arch foreign size packages
  describe_root "$dir"
  mkdir -p "$(dirname "$dir")"
  as_root rm -rf "$part"
  if ! as_root debootstrap --variant=minbase --arch="$arch" "$suite" "$part" "$mirror" || ! complete_root "$part" "$mirror"; then
    as_root rm -rf "$part"
    return 1
  fi
  as_root rm -rf "$dir"
  as_root mv "$part" "$dir"
}

# prepare_root DIR: the private root DIR with everything in it. It comes by debootstrap from the mirror that apt uses: Debian's
# own i386 packages on this machine (wine32:i386) can be installed only while both architectures' package lists are of the
# same day, SoftHSM cannot be installed in both widths, and neither can two Wines.
prepare_root() {
  local dir=$1 mirror lock log=$1.log suite arch foreign size packages
  describe_root "$dir"
  mkdir -p "$(dirname "$dir")"
  # Another checkout may be at the same.
  exec {lock}>"$dir.lock"
  flock "$lock"
  if ! is_complete "$dir"; then
    need_packages debootstrap debian-archive-keyring util-linux
    # shellcheck disable=SC2016 # apt's own placeholders
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 2>/dev/null | awk '$2 == "bookworm" { m = $1 } END { print m }')
    mirror=${mirror:-http://deb.debian.org/debian}
    : >"$log"
    if [[ -d $dir ]]; then
      step "Adding to the private $suite root in $dir (once; a minute or two)"
      complete_root "$dir" "$mirror" >>"$log" 2>&1 || note "that failed (all of it: $log); making it anew"
    fi
    if ! is_complete "$dir"; then
      step "Making a private $suite root with Wine in $dir from $mirror (once; some minutes, $size)"
      make_root "$dir" "$mirror" >>"$log" 2>&1 || tail -n 3 "$log" >&2
    fi
  fi
  exec {lock}>&-
  is_complete "$dir"
}

prepare_wine10() {
  can_mount || die "nothing may be mounted here, so Wine 10 cannot have a private root"
  prepare_root "$WINE10_ROOT" || die "the private root for Wine 10 could not be made (all of it: $WINE10_ROOT.log)"
}

prepare_x86() {
  if can_mount; then
    ! prepare_root "$I386_ROOT" || return 0
    note "the private i386 root could not be made (all of it: $I386_ROOT.log)"
  else
    note "nothing may be mounted here, so a private i386 root is of no use"
  fi
  if [[ ! $(how_to_run_x86) ]]; then
    note "trying Debian's wine32 instead"
    as_root dpkg --add-architecture i386
    need_packages wine32:i386
  fi
  [[ $(how_to_run_x86) ]] || die "32-bit programs cannot be run on this machine"
  note "32-bit programs have no soft token then: $(why_no_soft_token x86)"
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
    wine10) prepare_wine10 ;;
    check) need_packages clang clang-format clang-tidy cppcheck shellcheck binutils-mingw-w64-x86-64 python3 ;;
    coverage) need_packages gcovr python3 ;;
    bench) need_packages gnuplot-nox python3 ;;
    fuzz) need_packages clang libclang-rt-14-dev ;; # libFuzzer and the sanitizers' runtime are only recommended by clang
    package) need_packages wixl msitools osslsigncode libengine-pkcs11-openssl git python3 ;;
    *) die "unknown purpose $purpose; known are: build run x86 check coverage fuzz bench package wine10" ;;
  esac
done
note "prepared for: $*"
