#!/usr/bin/env bash
# An ordinary CNG program signs, asks for PINs, makes keys and more on real SoftHSM tokens, through router, provider
# and token module; OpenSSL and pkcs11-tool look at the results from the Linux side.
# shellcheck source=tests/e2e/common.sh
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-provider-$arch
once_for 0 1 all
out=$work/out
rm -rf "$out"
mkdir -p "$out"
assemble_app "$arch" "$work/app"
cp "$BUILD/$arch/bin/provider_driver.exe" "$work/app"

environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=demo" \
  --reader "Norvale Reader 1=second" --reader "Norvale Reader 2=victim" --reader "Norvale Reader 3=workshop" \
  --key Key1 --key Key2:1024 --key-on second:Key4:1024 --key-on victim:Key3:1024)
eval "$environment"
KELDA_OUT=$(windows_path "$out")
export KELDA_OUT

# tries TOKEN: the tries left and their maximum, as the token module keeps them.
tries() {
  local serial
  serial=$(pkcs11-tool --module "$softhsm" --list-token-slots 2>/dev/null |
    awk -v label="$1" '/token label/ { found = ($0 ~ ": " label "$") } found && /serial num/ { print $NF; exit }')
  cat "$work/token/tokens/tries-$serial"
}
tries_are() { [[ $(tries "$1") == "$2" ]] || { tries "$1" && return 1; }; }

# recovers KEY.PEM NAME: the block that OpenSSL gets out of NAME.sig is NAME.block.
recovers() {
  openssl pkeyutl -verifyrecover -pubin -inkey "$1" -pkeyopt rsa_padding_mode:pkcs1 -in "$out/$2.sig" \
    -out "$out/$2.recovered" && cmp "$out/$2.block" "$out/$2.recovered"
}

public_key_of demo Key1 "$out/key1.pem" >/dev/null 2>&1
public_key_of second Key4 "$out/key4.pem" >/dev/null 2>&1
cp "$ROOT/README.md" "$out/document"
printf secret >"$out/secret"
openssl pkeyutl -encrypt -pubin -inkey "$out/key1.pem" -in "$out/secret" -out "$out/from-openssl.cipher"
openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -subj "/C=NV/O=Norvale/CN=Jane Token" -set_serial 0x0102f3 \
  -outform DER -out "$out/certificate.der" 2>/dev/null

start_display
use_prefix "$arch" "$work/prefix"
"$ROOT/scripts/register.sh" "$arch" "$WINEPREFIX" "$work/app/keldaksp.dll"

if [[ $mode == unadapted ]]; then
  driver "$work/app/provider_driver.exe" 'Unadapted.*'
  exit
fi

lists_keys() {
  local keys
  keys=$(on "$arch" "$WINE" "$work/app/keldactl.exe" keys)
  printf '%s\n' "$keys"
  [[ $keys == *Key1*Key2* ]]
}
printf 'Norvale Reader 0 = demo\n' >"$work/token/readers"
check "keldactl lists the keys" lists_keys

driver "$work/app/provider_driver.exe" 'Cancelling.*'
check "cancelling costs no try" tries_are demo "3 3"
driver "$work/app/provider_driver.exe" 'Locking.*'
check "three wrong PINs lock the token" tries_are victim "0 3"
driver "$work/app/provider_driver.exe" 'Signing.*'
check "the right PIN gives the tries back" tries_are demo "3 3"
driver "$work/app/provider_driver.exe" 'Readers.*'
driver "$work/app/provider_driver.exe" 'Keys.*'

for size in 16 20 32 64 34 35 51 83 36; do
  check "openssl recovers the block of $size bytes of input" recovers "$out/key1.pem" "sign-$size"
done
for hash in md5 sha1 sha256 sha512; do
  check "openssl verifies the file's $hash signature" openssl dgst "-$hash" -verify "$out/key1.pem" \
    -signature "$out/document.$hash" "$out/document"
done
check "openssl recovers the block signed on the second token" recovers "$out/key4.pem" second

decrypts() {
  pkcs11-tool --module "$softhsm" --token-label demo --login --pin "$KELDA_PIN" --decrypt --mechanism RSA-PKCS \
    --id 4b657931 --input-file "$out/to-openssl.cipher" --output-file "$out/to-openssl.plain" &&
    cmp "$out/secret" "$out/to-openssl.plain"
}
check "the Linux side decrypts what the provider encrypted" decrypts

exported_as_on_token() {
  [[ $(od -An -v -tx1 "$out/key1.modulus" | tr -d ' \n') == \
    "$(openssl rsa -pubin -in "$out/key1.pem" -noout -modulus | sed 's/Modulus=//' | tr 'A-F' 'a-f')" ]]
}
check "the exported modulus is the token's" exported_as_on_token

for bits in 1024 2048 3072 4096; do
  check "the generated key of $bits bits is readable on the Linux side" public_key_of workshop "Made$bits" \
    "$out/made$bits.pem"
  check "openssl recovers the block signed with $bits bits" recovers "$out/made$bits.pem" "made-$bits"
done

# ids LABEL: "TYPE IDENTIFIER" of every object of that label on the workshop's token, sorted.
listing=$out/objects.txt
pkcs11-tool --module "$softhsm" --token-label workshop --login --pin "$KELDA_PIN" --list-objects >"$listing" 2>/dev/null
ids() {
  awk -v label="$1" '
    / Object;/ { type = $1; name = "" }
    /label:/ { sub(/^ *label: */, ""); name = $0 }
    /ID:/ && name == label { print type, $2 }' "$listing" | sort
}
is_pair() {
  local objects identifier
  objects=$(ids "$1")
  identifier=${objects##* }
  printf '%s\n' "$objects"
  [[ $identifier =~ ^[0-9a-f]{40}$ && $objects == "Private $identifier"$'\n'"Public $identifier" ]]
}
for bits in 1024 2048 3072 4096; do
  check "the pair of $bits bits shares an identifier of 20 bytes" is_pair "Made$bits"
done
check "an overwritten key is there once" is_pair Again
check "a deleted key is gone" test -z "$(ids Doomed)"
is_public_key_alone() {
  ids "$1"
  [[ $(ids "$1") =~ ^Public\ [0-9a-f]{128}0{128}$ ]]
}
check "an imported public key is alone" is_public_key_alone Imported

certificate_is_with_its_key() {
  local identifier
  identifier=$(ids Certified | sed -n 's/^Public //p')
  [[ $identifier && $(ids "Jane Token") == "Certificate $identifier" ]] || {
    cat "$listing"
    return 1
  }
  pkcs11-tool --module "$softhsm" --token-label workshop --read-object --type cert --id "$identifier" \
    --output-file "$out/certificate.read" && cmp "$out/certificate.der" "$out/certificate.read"
}
check "the certificate is on the token with its key's identifier" certificate_is_with_its_key
