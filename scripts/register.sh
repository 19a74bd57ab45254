#!/usr/bin/env bash
# register.sh ARCH PREFIX DLL [LOG]: registers the provider in a Wine prefix with keldactl, which lies beside DLL, the
# provider; a copy of DLL goes to the system folder. With LOG, a file, the debug log is switched on. What an earlier
# registration left is removed first, settings included. Can be run again at any time.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"
(($# == 3 || $# == 4)) || die "usage: register.sh ARCH PREFIX DLL [LOG]"
arch=$1
folder=$(dirname "$3")
WINEARCH=$([[ $arch == x64 ]] && echo win64 || echo win32)
WINE=$([[ $arch == x64 ]] && echo wine64 || echo wine)
export WINEPREFIX=$2 WINEARCH
[[ -f $folder/keldactl.exe && -f $folder/bcrypt.dll ]] || die "keldactl.exe and bcrypt.dll have to lie beside $3"
use_standins "$folder"

keldactl() { on "$arch" "$WINE" "$folder/keldactl.exe" "$@" </dev/null; }

on "$arch" "$WINE" reg delete 'HKLM\Software\Norvale Token Works Ltd.\KELDA SDK' /f >/dev/null 2>&1 || true
keldactl unregister >/dev/null || die "an earlier registration could not be removed"
said=$(keldactl register --copy 2>&1) || die "the provider could not be registered: $said"
[[ ! ${4-} ]] || said=$(keldactl log on "$(windows_path "$4")" 2>&1) || die "the log could not be switched on: $said"
