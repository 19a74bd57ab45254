#!/usr/bin/env bash
# The stand-in token module on a real SoftHSM token: called from Windows code, looked at from the Linux side.
# shellcheck source=tests/e2e/common.sh
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-soft-token-$arch
once_for 0 1 all
rm -rf "$work/out"
mkdir -p "$work/app" "$work/out"
cp "$BUILD/$arch/bin/soft_token_driver.exe" "$BUILD/$arch/standins/keldapkcs11.dll" "$work/app"
export WINEDLLPATH=$BUILD/$arch/standins

environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=demo" \
  --reader "Norvale Reader 1=victim" --reader "Norvale Reader 2" --key Key1 --key Twin:1024 --key Twin:1024 \
  --key Doomed:1024)
eval "$environment"
KELDA_OUT=$(windows_path "$work/out")
export KELDA_OUT
serial_of_victim=$(pkcs11-tool --module "$softhsm" --list-token-slots |
  awk '/token label/ { found = / victim$/ } found && /serial num/ { print $NF; exit }')
echo "4 4" >"$work/token/tokens/tries-$serial_of_victim"
openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -subj "/CN=Soft token" -outform DER \
  -out "$work/out/certificate.der" 2>/dev/null

start_display
use_prefix "$arch" "$work/prefix"

if [[ $mode == unadapted ]]; then
  driver "$work/app/soft_token_driver.exe" 'UnadaptedToken.*'
  exit
fi

driver "$work/app/soft_token_driver.exe" SoftToken.UsesOneTryOfFour
check "the tries left survive the process" grep -qx "3 4" "$work/token/tokens/tries-$serial_of_victim"
driver "$work/app/soft_token_driver.exe" "SoftToken.*:${mode^}Token.*:-SoftToken.UsesOneTryOfFour:SoftToken.StaysLocked"
check "the lock survives the process" grep -qx "0 4" "$work/token/tokens/tries-$serial_of_victim"
driver "$work/app/soft_token_driver.exe" SoftToken.StaysLocked

: >"$work/out/empty"
check "the public key is readable on the Linux side" public_key_of demo Key1 "$work/out/key1.pem"
check "openssl verifies the signature" openssl dgst -sha256 -verify "$work/out/key1.pem" \
  -signature "$work/out/empty.sig" "$work/out/empty"

# shows TYPE LABEL ID: pkcs11-tool lists such an object.
listing=$work/out/objects.txt
pkcs11-tool --module "$softhsm" --token-label demo --login --pin "$KELDA_PIN" --list-objects >"$listing" 2>/dev/null
shows() {
  awk -v type="$1" -v label="$2" -v id="$3" '
    / Object;/ { kind = $0; name = "" }
    /label:/ { name = $2 }
    /ID:/ && index(kind, type) == 1 && name == label && $2 == id { found = 1 }
    END { exit !found }' "$listing" || {
    cat "$listing"
    return 1
  }
}
made=4d61646520686572652c2032302062797465732e
copied=$(printf '5a%.0s' {1..64})$(printf '00%.0s' {1..64})
check "the generated public key is on the token" shows "Public Key Object" Made "$made"
check "the generated private key is on the token" shows "Private Key Object" Made "$made"
check "the created public key is on the token" shows "Public Key Object" Copy "$copied"
check "the certificate is on the token" shows "Certificate Object" Copy 4b657931
is_gone() { ! grep "$1" "$listing"; }
check "the destroyed pair is gone" is_gone Doomed
certificate_is_as_stored() {
  pkcs11-tool --module "$softhsm" --token-label demo --read-object --type cert --id 4b657931 \
    --output-file "$work/out/certificate.read" && cmp "$work/out/certificate.der" "$work/out/certificate.read"
}
check "the certificate is what was stored" certificate_is_as_stored
