#!/bin/sh
# Puts the stand-ins of a build into a Wine prefix, as if the machine had them: key storage router, smart card service
# and (x64) token module go to the prefix's system folder and are preferred to what is built into Wine.
#
#   eval "$(standins/install.sh BUILD PREFIX)"       e.g. build/x64 and a folder that wineboot made a prefix of
#
# Standard output is shell code that exports what programs under that prefix need besides WINEPREFIX:
#   WINEDLLPATH        where Wine finds the Linux half of the token module
#   WINEDLLOVERRIDES   without it Wine prefers its own smart card service and key storage
# The token itself is scripts/soft-token.sh's to make. Safe to run again.
set -eu

say() { printf 'standins: %s\n' "$*" >&2; }

if [ $# -ne 2 ]; then
  sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
standins=$(cd "$1/standins" && pwd)
prefix=$2
system=$prefix/drive_c/windows/system32
[ -d "$system" ] || {
  say "$prefix is not a Wine prefix"
  exit 1
}

for dll in ncrypt winscard keldapkcs11; do
  [ -e "$standins/$dll.dll" ] || continue
  # Over a link to Wine's own file the copy would go to the wrong place.
  rm -f "$system/$dll.dll"
  cp "$standins/$dll.dll" "$system/$dll.dll"
done

cat <<ENV
export WINEDLLPATH='$standins'
export WINEDLLOVERRIDES='ncrypt,winscard=n'
ENV
