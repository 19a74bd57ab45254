#!/usr/bin/env bash
# demo.sh [--ask] [FILE]: signs FILE (default: README.md) with a token key through CNG and verifies it with OpenSSL.
#
# Prepares the machine, builds, makes a soft token with a key, registers the provider in a Wine prefix of its own, and
# lets keldactl, which knows nothing but CNG, list the keys and sign. The provider's PIN dialog is answered by a robot on
# a display of its own; with --ask it appears on this desktop and waits for you. Everything stays in build/demo.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

ask=
file=
for argument in "$@"; do
  case $argument in
    --ask) ask=1 ;;
    -h | --help)
      sed -n '2,/^# shellcheck/{/^# shellcheck/d;s/^# \{0,1\}//p}' "$0"
      exit 0
      ;;
    -*) die "unknown option $argument" ;;
    *)
      [[ ! $file ]] || die "only one file can be signed at a time"
      file=$argument
      ;;
  esac
done
file=$(realpath -m "${file:-$ROOT/README.md}")
[[ -f $file && -r $file ]] || die "$file is not a file that can be read"
[[ ! $ask || ${DISPLAY-} ]] || die "--ask needs a desktop, and DISPLAY is not set"

"$ROOT/scripts/prepare.sh" build run
"$ROOT/scripts/build.sh" --without-tests x64

demo=$BUILD/demo
key='demo-key'
mkdir -p "$demo"
signer=
finish() {
  local status=$?
  if [[ $signer ]]; then kill "$signer" 2>/dev/null || true; fi
  leave_nothing
  ((status == 0)) || printf '\ndemo.sh: stopped with status %d before the signature was verified\n' "$status" >&2
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM

step "Making a soft token with an RSA key"
environment=$("$ROOT/scripts/soft-token.sh" "$demo/token" --reader "Norvale Reader 0=Demo Token" --key "$key") ||
  die "the soft token could not be made"
eval "$environment"

if [[ $ask ]]; then
  use_prefix x64 "$demo/prefix-desktop" managed
else
  start_display 1024x768
  use_prefix x64 "$demo/prefix"
fi

step "Registering the provider in the Wine prefix $WINEPREFIX"
assemble_app x64 "$demo/app"
rm -f "$demo/keldaksp.log"
"$ROOT/scripts/register.sh" x64 "$WINEPREFIX" "$demo/app/keldaksp.dll" "$demo/keldaksp.log"
note "the provider's log: $demo/keldaksp.log"

keldactl() { "$WINE" "$demo/app/keldactl.exe" "$@"; }

step "keldactl keys"
keldactl keys || die "the keys could not be listed"

step "keldactl sign --key $key $(basename "$file")"
signature=$demo/$(basename "$file").sig
rm -f "$signature" "$demo/pin-dialog.png"
keldactl sign --key "$key" --out "$(windows_path "$signature")" "$(windows_path "$file")" </dev/null &
signer=$!
if [[ $ask ]]; then
  note "the PIN dialog is coming up on your desktop; the token's PIN is $KELDA_PIN"
else
  window=$(wait_for_dialog "Enter PIN" "$signer") || die "the PIN dialog did not come up"
  note "the PIN dialog is up: $(xdotool getwindowname "$window")"
  xdotool windowfocus --sync "$window" type "$KELDA_PIN"
  picture_of "$window" "$demo/pin-dialog.png" || die "no picture of the PIN dialog could be taken"
  note "its picture: $demo/pin-dialog.png"
  xdotool key Return
fi
status=0
wait "$signer" || status=$?
signer=
((status == 0)) || die "keldactl could not sign (status $status)"

step "Reading the public key from the token on the Linux side, and verifying with OpenSSL"
pkcs11-tool --module "$KELDA_SOFTHSM" --token-label "Demo Token" --read-object --type pubkey --label "$key" \
  --output-file "$demo/public.der" >/dev/null 2>&1 || die "the public key could not be read from the token"
openssl pkey -pubin -inform DER -in "$demo/public.der" -out "$demo/public.pem" || die "the public key is not readable"
note "openssl dgst -sha256 -verify public.pem -signature $(basename "$signature") $(basename "$file")"
leave_nothing
openssl dgst -sha256 -verify "$demo/public.pem" -signature "$signature" "$file" || die "the signature does not match"
