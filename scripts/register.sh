#!/usr/bin/env bash
# register.sh ARCH PREFIX DLL [LOG]: registers the provider in a Wine prefix, as its installer does on Windows. DLL is
# the provider's path; with LOG, a file, the debug log is switched on. Can be run again at any time.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"
(($# == 3 || $# == 4)) || die "usage: register.sh ARCH PREFIX DLL [LOG]"
arch=$1
WINEARCH=$([[ $arch == x64 ]] && echo win64 || echo win32)
WINE=$([[ $arch == x64 ]] && echo wine64 || echo wine)
export WINEPREFIX=$2 WINEARCH
provider='Norvale Token Works KSP v1.0'

# text VALUE: as a .reg file quotes it.
text() {
  local value=${1//\\/\\\\}
  printf '"%s"' "${value//\"/\\\"}"
}

# texts VALUE...: a REG_MULTI_SZ of ASCII strings, as a .reg file spells it.
texts() {
  local value i bytes=
  for value in "$@"; do
    for ((i = 0; i < ${#value}; i++)); do
      bytes+=$(printf '%02x,00,' "'${value:i:1}")
    done
    bytes+=00,00,
  done
  printf 'hex(7):%s00,00' "$bytes"
}

file=$(mktemp --suffix .reg)
trap 'rm -f "$file"' EXIT
crypto='HKEY_LOCAL_MACHINE\System\CurrentControlSet\Control\Cryptography'
sdk='HKEY_LOCAL_MACHINE\Software\Norvale Token Works Ltd.\KELDA SDK'
{
  printf 'Windows Registry Editor Version 5.00\n\n'
  printf '[%s\\Providers\\%s]\n' "$crypto" "$provider"
  printf '"Aliases"=%s\n' "$(texts "$provider")"
  printf '"Default Key Length"=dword:%08x\n\n' 2048
  printf '[%s\\Providers\\%s\\UM]\n' "$crypto" "$provider"
  printf '"Image"=%s\n\n' "$(text "$(windows_path "$3")")"
  printf '[%s\\Providers\\%s\\UM\\00010001]\n' "$crypto" "$provider"
  printf '"Flags"=dword:00000001\n"Functions"=%s\n\n' "$(texts KEY_STORAGE)"
  printf '[%s\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE]\n' "$crypto"
  printf '"Providers"=%s\n\n' "$(texts 'Microsoft Software Key Storage Provider' "$provider")"
  printf '[-%s]\n\n[%s]\n' "$sdk" "$sdk"
  [[ ! ${4-} ]] || printf '"KSPLOG"="1"\n"KSPDIR"=%s\n' "$(text "$(windows_path "$4")")"
} | iconv -f UTF-8 -t UTF-16 >"$file" # in any other encoding the hex bytes of strings would be taken as 8-bit text
on "$arch" "$WINE" reg import "$(windows_path "$file")" >/dev/null || die "the registration could not be written"
