#!/usr/bin/env bash
# The packages: made twice, installed by Wine's Windows Installer, upgraded, repaired and removed, with a soft token behind
# what was installed. Files and registry are compared before and after.
# shellcheck source=tests/e2e/common.sh
# shellcheck disable=SC2016 # inner shells expand their own
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-packages
rm -rf "$work"/{out,first,first-again,second,older,signing}
mkdir -p "$work/out" "$work/signing/tokens"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/x64/CMakeCache.txt")
[[ -f $BUILD/x86/bin/keldaksp.dll ]] || die "the packages need the x86 build too: scripts/build.sh --without-tests x86"

# ---- Making them ----
check "packages are made" "$ROOT/scripts/package.sh" --out "$work/first"
check "packages of a lower version are made" "$ROOT/scripts/package.sh" --out "$work/older" --version 4.1.9.0 x64
# Another minute, and another order of events.
"$ROOT/scripts/package.sh" --out "$work/second" >/dev/null 2>&1 || true
check "a second run gives the same bytes" diff -r "$work/first" "$work/second"
check "SHA256SUMS is right" bash -c 'cd "$1" && sha256sum --check --quiet SHA256SUMS && (($(wc -l <SHA256SUMS) == 5))' - "$work/first"
check "archive and package hold the same files" python3 - "$work/first/keldaksp-$version" <<'PYTHON'
import subprocess, sys, zipfile
for arch in "x64", "x86":
    name = f"{sys.argv[1]}-{arch}"
    # A long name follows its short form.
    table = subprocess.run(["msiinfo", "export", name + ".msi", "File"], check=True, capture_output=True, text=True)
    packed = sorted(line.split("\t")[2].split("|")[-1] for line in table.stdout.splitlines()[3:])
    zipped = sorted(entry.split("/")[-1] for entry in zipfile.ZipFile(name + ".zip").namelist())
    assert packed == zipped and len(packed) > 10, (packed, zipped)
PYTHON
check "what is packed says the package's version" python3 - "$work/first/keldaksp-$version" "$version" <<'PYTHON'
import sys, zipfile
said = sys.argv[2].encode("utf-16-le")
for arch in "x64", "x86":
    archive = zipfile.ZipFile(f"{sys.argv[1]}-{arch}.zip")
    for name in archive.namelist():
        assert not name.endswith((".dll", ".exe")) or said in archive.read(name), name
PYTHON
check "the bill of materials names every file" python3 - "$work/first/keldaksp-$version" <<'PYTHON'
import hashlib, json, sys, zipfile
bill = json.load(open(sys.argv[1] + ".spdx.json"))
known = {c["checksumValue"] for f in bill["files"] for c in f["checksums"] if c["algorithm"] == "SHA256"}
for arch in "x64", "x86":
    archive = zipfile.ZipFile(f"{sys.argv[1]}-{arch}.zip")
    for entry in archive.namelist():
        assert hashlib.sha256(archive.read(entry)).hexdigest() in known, entry
assert all(part["versionInfo"] for part in bill["packages"])
PYTHON

# ---- Signing them, with a throw-away certificate ----
check "unsigned packages say so" bash -c '"$1" --out "$2" x64 | grep -q "They are not signed"' - "$ROOT/scripts/package.sh" "$work/first-again"
(
  cd "$work/signing" && openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out certificate.pem -days 30 \
    -subj "/CN=Throw-away" -addext extendedKeyUsage=codeSigning && echo secret >password && echo 1234 >pin &&
    openssl pkcs12 -export -inkey key.pem -in certificate.pem -out signer.p12 -passout file:password &&
    printf 'directories.tokendir = %s\nobjectstore.backend = file\n' "$PWD/tokens" >softhsm2.conf &&
    export SOFTHSM2_CONF=$PWD/softhsm2.conf && softhsm2-util --init-token --free --label signing --pin 1234 --so-pin 12345678 &&
    softhsm2-util --import key.pem --token signing --label signer --id 01 --pin 1234
) >"$work/signing/preparation.log" 2>&1 || cat "$work/signing/preparation.log"
# signed DIR: package, DLLs and client carry a signature of that certificate.
signed() {
  local file
  rm -rf "$work/signing/files"
  python3 -m zipfile -e "$1/keldaksp-$version-x64.zip" "$work/signing/files"
  for file in "$1"/*.msi "$work/signing/files"/*/{,x86/}{keldaksp.dll,keldactl.exe}; do
    osslsigncode verify -CAfile "$work/signing/certificate.pem" -in "$file" || return 1
  done
}
check "packages are signed with a PKCS#12 file" "$ROOT/scripts/package.sh" --out "$work/signing/file" \
  --sign-with "$work/signing/signer.p12" --password-file "$work/signing/password" x64
check "and their signatures are right" signed "$work/signing/file"
check "a signed package is whole" msiinfo export "$work/signing/file/keldaksp-$version-x64.msi" CustomAction
check "packages are signed with a key on a token" env SOFTHSM2_CONF="$work/signing/softhsm2.conf" \
  "$ROOT/scripts/package.sh" --out "$work/signing/token" --sign-with 'pkcs11:token=signing;object=signer;type=private' \
  --certificate "$work/signing/certificate.pem" --module "$softhsm" --password-file "$work/signing/pin" x64
check "and their signatures are right (token)" signed "$work/signing/token"

environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=demo" --key Key1)
eval "$environment"
start_display

provider='Norvale Token Works KSP v1.0'
crypto='HKLM\System\CurrentControlSet\Control\Cryptography'
ours="$crypto\\Providers\\$provider"
sdk='HKLM\Software\Norvale Token Works Ltd.\KELDA SDK'
sdk32='HKLM\Software\WOW6432Node\Norvale Token Works Ltd.\KELDA SDK'

reg() { on "$arch" "$WINE" reg "$@" </dev/null; }
set_value() { reg add "$1" /v "$2" /t "$3" /d "$4" /f >/dev/null; }
# value KEY NAME: the data of a registry value, or nothing.
value() { reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' | sed -n "s/^ *$2 *REG_[A-Z_]* *//p" || true; }
# value_is KEY NAME DATA
value_is() { [[ $(value "$1" "$2") == "$3" ]] || { echo "$2 is \"$(value "$1" "$2")\"" && false; }; }

# keys KEY...: these registry keys as text. Wine leaves the separator behind when it takes a folder from the PATH.
keys() {
  local key
  for key in "$@"; do
    reg query "$key" /s 2>/dev/null | tr -d '\r' | sed '/ PATH /s/;*$//; /^$/d' || true
  done
}
registration_state() {
  keys 'HKLM\Software\Norvale Token Works Ltd.\KELDA SDK' 'HKLM\Software\WOW6432Node\Norvale Token Works Ltd.' "$crypto"
}
# system_state FILE: what an installation touches, as text.
system_state() {
  on "$arch" wineserver -w
  {
    keys 'HKLM\Software\Norvale Token Works Ltd.'
    registration_state
    keys 'HKLM\System\CurrentControlSet\Control\Session Manager\Environment' \
      'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
    (cd "$WINEPREFIX/drive_c" && find "Program Files" windows/system32 -not -name '*.tmp' | sort)
  } >"$1"
}

# msi WORD...: runs Windows Installer silently, with its status in `status` and its log in msi.txt.
msi() {
  local action=$1 package=$2
  shift 2
  status=0
  rm -f "$work/out/msi.txt"
  on "$arch" timeout -k 10 300 "$WINE" msiexec "$action" "$(windows_path "$package")" /qn \
    /l*v "$(windows_path "$work/out/msi.txt")" "$@" </dev/null >/dev/null 2>&1 || status=$?
}
# install_with_messages PACKAGE WORD...: with the plain user interface, whose message a robot answers. Wine, which keeps the
# messages of launch conditions out of its log, tells them in messages.txt.
install_with_messages() {
  local package=$1 installer window
  shift
  status=0
  WINEDEBUG=-all,+msgbox on "$arch" timeout -k 10 300 "$WINE" msiexec /i "$(windows_path "$package")" /qb "$@" \
    </dev/null >messages.txt 2>&1 &
  installer=$!
  while kill -0 "$installer" 2>/dev/null; do
    window=$(xdotool search --onlyvisible --name '^(Install Failed|Windows Installer)$' 2>/dev/null | head -n 1) || true
    [[ ! $window ]] || xdotool windowfocus --sync "$window" key Return || true
    sleep 0.1
  done
  wait "$installer" || status=$?
}
message_says() { grep -qF -e "$1" messages.txt || { cat messages.txt && false; }; }
repair=(REINSTALL=ALL REINSTALLMODE=amus)
succeeded() { ((status == 0)) || { tail -n 40 msi.txt; return 1; }; }
refused() { ((status != 0)); }
log_says() { tr -d '\r' <msi.txt | grep -qE -e "$1" || { tail -n 40 msi.txt; return 1; }; }

# prepare_system ARCH: a Wine prefix with another provider, and in the folder of the product what Wine lacks.
prepare_system() {
  arch=$1
  rm -rf "$work/prefix-$arch"
  use_prefix "$arch" "$work/prefix-$arch"
  installed="$WINEPREFIX/drive_c/Program Files/Norvale Token Works/KSP"
  cmake --install "$BUILD/$arch" --component standins --prefix "$installed" >/dev/null
  use_standins "$installed"
  reg add "$crypto\\Providers\\Other KSP\\UM" /v Image /t REG_SZ /d other.dll /f >/dev/null
  reg add "$crypto\\Providers\\Other KSP\\UM\\00010001" /v Functions /t REG_MULTI_SZ /d KEY_STORAGE /f >/dev/null
  reg add "$crypto\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE" /v Providers /t REG_MULTI_SZ /d 'Other KSP' /f >/dev/null
  system_state "$work/out/before-$arch.txt"
  # The 32-bit installation has to miss the token module at first.
  if [[ $arch == x86 && -e $installed/keldapkcs11.dll ]]; then mv "$installed/keldapkcs11.dll" "$work/out/module.dll"; fi
}
unchanged() { system_state "$work/out/now.txt" && diff "$work/out/before-$arch.txt" "$work/out/now.txt"; }

# keldactl WORD...: the one that was installed; its words are in said.txt.
keldactl() { on "$arch" timeout -k 10 120 "$WINE" "$installed/keldactl.exe" "$@" >said.txt 2>&1 </dev/null; }
says() { tr -d '\r' <said.txt | grep -qE -e "$1" || { cat said.txt && false; }; }

sign_with_pin() {
  local worker window
  keldactl sign --key Key1 data.txt --out data.sig &
  worker=$!
  while kill -0 "$worker" 2>/dev/null; do
    window=$(xdotool search --onlyvisible --name '^Enter PIN for demo$' 2>/dev/null | head -n 1) || true
    if [[ $window ]]; then
      xdotool windowfocus --sync "$window" type "$KELDA_PIN" && xdotool key Return
      break
    fi
    sleep 0.1
  done
  wait "$worker" && public_key_of demo Key1 key1.pem && openssl dgst -sha256 -verify key1.pem -signature data.sig data.txt
}

cd "$work/out" || exit
echo data >data.txt
package=$work/first/keldaksp-$version-x64.msi
older=$work/older/keldaksp-4.1.9.0-x64.msi
# Windows tells a version that an upgrade removes that it is one; Wine does not, and the environment stands in for it.
taking_away='REMOVE~="ALL" AND NOT UPGRADINGPRODUCTCODE'
check "what an upgrade leaves in place hangs on one condition" bash -c '(($(grep -cF "$2" <(msiinfo export "$1" InstallExecuteSequence)) == 6))' - \
  "$older" "$taking_away"
msibuild "$older" -q "UPDATE InstallExecuteSequence SET Condition = 'REMOVE~=\"ALL\" AND NOT %KELDA_UPGRADING' WHERE Condition = '$taking_away'"

# ---- x64: refusals, which leave everything as it is ----
prepare_system x64
system=$WINEPREFIX/drive_c/windows
path_marks='because of one of the characters'
# A property with a quotation mark in it reaches a package in the package only: msiexec's own command line loses it.
cp "$package" quoted.msi
msibuild quoted.msi -q "INSERT INTO Property (Property, Value) VALUES ('LOGFILE', 'C:\\ksp\"log')"
# A package, its properties, and what is said of them.
# shellcheck disable=SC1003 # backslashes, no escapes
refusals=(
  "$package" 'PINCACHE=perhaps' 'PINCACHE has to be on or off; it is perhaps.'
  "$package" 'PINCACHE=00000000' 'PINCACHE has to be on or off; it is 00000000.'
  "$package" 'PROVIDERCACHE=1' 'PROVIDERCACHE has to be on or off; it is 1.'
  "$package" 'KEYLENGTH=2049' 'KEYLENGTH has to be 1024, 2048, 3072 or 4096; it is 2049.'
  "$package" 'KEYLENGTH=2048x' 'KEYLENGTH has to be 1024, 2048, 3072 or 4096; it is 2048x.'
  "$package" 'LOGFILE=ksp.log' 'LOGFILE has to be a path with its drive, or off; it is ksp.log.'
  "$package" 'LOGFILE=C:\logs\' 'LOGFILE has to be a file, not a folder; it is C:\\logs\\.'
  "$package" 'LOGFILE=C:\ksp|CLIENT=C:\evil.exe' "LOGFILE is no path, $path_marks"
  quoted.msi PINCACHE=off "LOGFILE is no path, $path_marks"
  "$package" 'LOGFILE=C:\ksp*log' "LOGFILE is no path, $path_marks"
  "$package" 'LOGFILE=C:\ksp?log' "LOGFILE is no path, $path_marks"
  "$package" 'LOGFILE=C:\<ksp>log' "LOGFILE is no path, $path_marks"
  "$package" 'INSTALLDIR=C:\Tools' 'INSTALLDIR has to be a folder in C:\\Program Files\\, which only administrators may change; it is C:\\Tools.'
  "$package" 'INSTALLDIR=C:\Program Files' 'INSTALLDIR has to be a folder in C:\\Program Files\\'
  "$package" 'INSTALLDIR=C:\Program Files\..\Tools' 'INSTALLDIR has to be a folder in C:\\Program Files\\'
  "$package" 'INSTALLDIR=C:\Program Files\KSP|CLIENT=C:\evil.exe' "INSTALLDIR is no path, $path_marks"
)
for ((number = 0; number < ${#refusals[@]}; number += 3)); do
  install_with_messages "${refusals[@]:number:2}"
  check "${refusals[number + 1]} is refused (${refusals[number]##*/})" refused
  check "with a message (${refusals[number + 1]})" message_says "${refusals[number + 2]}"
done
# shellcheck disable=SC1003 # a backslash, no escape
set_value 'HKLM\Software\Norvale Token Works Ltd.\Setup' InstallDir REG_SZ 'C:\Tools\'
install_with_messages "$package"
check "another folder that was chosen once is refused too" refused
check "with a message (the folder of before)" message_says 'which only administrators may change; it is C:\\Tools\\.'
reg delete 'HKLM\Software\Norvale Token Works Ltd.' /f >/dev/null
msi /i "$package" KEYLENGTH=2049
check "a value that means nothing is refused without a user interface" refused
check "what is refused changes nothing" unchanged
check "and makes no folder" bash -c '! [[ -e $1/Tools || -e $1/logs ]]' - "$WINEPREFIX/drive_c"

# ---- x64: installation of the lower version, with settings ----
msi /i "$older" PINCACHE=off PROVIDERCACHE=off KEYLENGTH=3072 'LOGFILE=C:\logs\ksp.log'
check "a silent installation" succeeded
check "the DLL is in System32" cmp "$BUILD/x64/bin/keldaksp.dll" "$system/system32/keldaksp.dll"
check "and the other one in SysWOW64" cmp "$BUILD/x86/bin/keldaksp.dll" "$system/syswow64/keldaksp.dll"
check "keldactl is installed" cmp "$BUILD/x64/bin/keldactl.exe" "$installed/keldactl.exe"
check "and the one for the programs of 32 bits" cmp "$BUILD/x86/bin/keldactl.exe" "$installed/x86/keldactl.exe"
check "and the documents" cmp "$ROOT/docs/registry.md" "$installed/docs/registry.md"
check "keldactl is on the PATH" grep -qF 'C:\Program Files\Norvale Token Works\KSP' \
  <(value 'HKLM\System\CurrentControlSet\Control\Session Manager\Environment' PATH)
for key in "$sdk" "$sdk32"; do
  check "PINCACHE=off (${key:14:12})" value_is "$key" PINCACHE 1
  check "PROVIDERCACHE=off (${key:14:12})" value_is "$key" dwUseProviderCache 0x0
  check "LOGFILE (${key:14:12})" value_is "$key" KSPDIR 'C:\logs\ksp.log'
  check "LOGFILE switches the log on (${key:14:12})" value_is "$key" KSPLOG 1
done
check "KEYLENGTH" value_is "$ours" 'Default Key Length' 0xc00
check "a missing token module is a warning" log_says 'keldapkcs11\.dll was not found for x86 programs'
keldactl status || true
check "the provider is registered" says 'is registered\.$'
check "for both widths" bash -c '[[ $(grep -c "can use the provider" said.txt) == 2 ]]'
check "the installed files list a key" bash -c 'grep -qE "^Key1 +4B657931 +RSA" <(tr -d "\r" <"$1")' - \
  <(keldactl keys && cat said.txt)
check "and sign with it" sign_with_pin
check "nothing saved is left" bash -c '! grep -F Saved' <<<"$(keys 'HKLM\Software\Norvale Token Works Ltd.')"

# ---- x64: upgrade ----
set_value "$ours" 'Default Key Length' REG_DWORD 4096
set_value "$sdk" dwUseProviderCache REG_DWORD 1
set_value "$sdk" Own REG_SZ kept
export KELDA_UPGRADING=1
msi /i "$package"
unset KELDA_UPGRADING
check "an upgrade" succeeded
check "the new version is installed, and no other" bash -c '[[ $(tr -d "\r" | grep DisplayVersion | xargs) == "DisplayVersion REG_SZ $1" ]]' - \
  "$version" < <(reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null)
check "the files are there" cmp "$BUILD/x64/bin/keldaksp.dll" "$system/system32/keldaksp.dll"
check "a key length that somebody set stays" value_is "$ours" 'Default Key Length' 0x1000
check "settings of the first installation stay" value_is "$sdk" PINCACHE 1
check "settings that were changed since stay" value_is "$sdk" dwUseProviderCache 0x1
keldactl status || true
check "the provider is registered after an upgrade" says 'is registered\.$'
system_state upgraded.txt
msi /i "$older"
check "a lower version is refused" refused
system_state now.txt
check "and the installed one stays" diff upgraded.txt now.txt

# ---- x64: repair ----
rm "$system/system32/keldaksp.dll" "$installed/docs/registry.md"
# What "/fa" means to Windows; Wine understands the long form only.
msi /i "$package" "${repair[@]}"
check "a repair" succeeded
check "brings the DLL back" cmp "$BUILD/x64/bin/keldaksp.dll" "$system/system32/keldaksp.dll"
check "and the document" cmp "$ROOT/docs/registry.md" "$installed/docs/registry.md"
check "and leaves the settings" value_is "$ours" 'Default Key Length' 0x1000
check "the repaired provider signs" sign_with_pin

# ---- x64: removal ----
msi /x "$package"
check "a silent removal" succeeded
check "what somebody set stays" value_is "$sdk" Own kept
check "what the package wrote is gone" value_is "$sdk32" PINCACHE ''
reg delete 'HKLM\Software\Norvale Token Works Ltd.' /f >/dev/null
check "nothing else is left, and other providers are as they were" unchanged
check "the 32-bit DLL is gone too" test ! -e "$system/syswow64/keldaksp.dll"

# ---- x86 ----
prepare_system x86
install_with_messages "$work/first/keldaksp-$version-x86.msi" 'INSTALLDIR=C:\Tools'
check "a folder that users may change is refused (x86)" refused
check "with a message (x86)" message_says 'INSTALLDIR has to be a folder in C:\\Program Files\\, which only'
msi /i "$work/first/keldaksp-$version-x86.msi" PINCACHE=off
check "a silent installation (x86)" succeeded
check "the DLL is in System32 (x86)" cmp "$BUILD/x86/bin/keldaksp.dll" "$WINEPREFIX/drive_c/windows/system32/keldaksp.dll"
check "PINCACHE=off (x86)" value_is "$sdk" PINCACHE 1
check "a missing token module is a warning (x86)" log_says 'keldapkcs11\.dll was not found for x86 programs'
without_token=$(why_no_soft_token x86)
[[ $without_token ]] || mv "$work/out/module.dll" "$installed/keldapkcs11.dll"
keldactl status || true
check "the provider is registered (x86)" says 'is registered\.$'
keldactl readers || true
check "the installed provider is loaded and lists readers (x86)" says 'Norvale Reader 0'
if [[ ! $without_token ]]; then
  keldactl keys || true
  check "the installed files list a key (x86)" says '^Key1 +4B657931 +RSA'
  check "and sign with it (x86)" sign_with_pin
fi
rm "$WINEPREFIX/drive_c/windows/system32/keldaksp.dll"
msi /i "$work/first/keldaksp-$version-x86.msi" "${repair[@]}"
check "a repair (x86)" cmp "$BUILD/x86/bin/keldaksp.dll" "$WINEPREFIX/drive_c/windows/system32/keldaksp.dll"
msi /x "$work/first/keldaksp-$version-x86.msi"
check "a silent removal (x86)" succeeded
check "nothing is left (x86)" unchanged

# ---- x64: an installation that fails ----
# Wine's Windows Installer ends with the failure and rolls nothing back, so that two things are tested by themselves: that
# a failing step is the end and is told, and what the actions bring back when they are run.
prepare_system x64
set_value "$sdk" PINCACHE REG_SZ mine
system_state before-x64.txt
registration_state >registration.txt
# The actions of a rollback, as ordinary ones behind those that they undo.
cp "$package" undoing.msi
msibuild undoing.msi -q "UPDATE CustomAction SET Type = 3137 WHERE Action = 'RestoreRegistration'"
msibuild undoing.msi -q "UPDATE InstallExecuteSequence SET Sequence = 6056 WHERE Action = 'RestoreRegistration'"
msi /i undoing.msi PINCACHE=off PROVIDERCACHE=off KEYLENGTH=1024
check "an installation with the actions of a rollback at its end" succeeded
check "they restore registration and settings" diff registration.txt <(registration_state)
msi /x undoing.msi
check "a removal without a registration" succeeded
check "a setting from before stays" value_is "$sdk" PINCACHE mine
check "the machine is as it was" unchanged
# The same without the action that saves: another installation's half of a saved state is no saved state.
set_value 'HKLM\Software\Norvale Token Works Ltd.\Setup\Saved\Client' Other REG_SZ half
msibuild undoing.msi -q "UPDATE InstallExecuteSequence SET Condition = '0' WHERE Action = 'SaveRegistration'"
msi /i undoing.msi PROVIDERCACHE=off
check "what was not saved completely is not restored" value_is "$sdk" dwUseProviderCache 0x0
check "the log says so" log_says 'were not saved completely, and nothing is restored'
check "and nothing saved is left then" bash -c '! grep -F Saved' <<<"$(keys 'HKLM\Software\Norvale Token Works Ltd.')"
msi /x undoing.msi
check "the machine is as it was, again" unchanged

# A log file cannot have the name of a folder.
msi /i "$package" 'LOGFILE=C:\windows'
check "a step of keldactl that fails ends the installation" refused
check "the log says which" log_says '"keldactl log on .*windows"" ended with status [0-9]+'
check "with keldactl's words" log_says '^keldactl log: .*windows'
