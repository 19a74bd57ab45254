#!/usr/bin/env bash
# demo.sh [--ask] [--readers 1|2] [FILE]: signs FILE (default: README.md) with a token key through CNG and verifies it with OpenSSL.
#
# Prepares the machine, builds, makes a soft token, registers the provider in a Wine prefix of its own, and lets keldactl,
# which knows nothing but CNG, work with it: a key pair is made on the token, requested a certificate for, certified by a
# throw-away CA, and used to sign FILE and to encrypt and decrypt. OpenSSL and pkcs11-tool look at every result from the
# Linux side. The provider's dialogs are answered by a robot on a display of its own; with --ask they appear on this
# desktop and wait for you. With two readers the provider asks which one to use. Everything stays in build/demo.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

ask=
file=
readers=1
while (($#)); do
  case $1 in
    --ask) ask=1 ;;
    --readers)
      [[ ${2-} =~ ^[12]$ ]] || die "--readers is 1 or 2"
      readers=$2
      shift
      ;;
    -*) die "unknown option $1" ;;
    *)
      [[ ! $file ]] || die "only one file can be signed at a time"
      file=$1
      ;;
  esac
  shift
done
file=$(realpath -m "${file:-$ROOT/README.md}")
[[ -f $file && -r $file ]] || die "$file is not a file that can be read"
[[ ! $ask || ${DISPLAY-} ]] || die "--ask needs a desktop, and DISPLAY is not set"

"$ROOT/scripts/prepare.sh" build run
"$ROOT/scripts/build.sh" --without-tests x64

demo=$BUILD/demo
key='demo-key'
token='Demo Token'
mkdir -p "$demo"
worker=
finish() {
  local status=$?
  if [[ $worker ]]; then kill "$worker" 2>/dev/null || true; fi
  leave_nothing
  ((status == 0)) || printf '\ndemo.sh: stopped with status %d before the signature was verified\n' "$status" >&2
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM

step "Making a soft token"
plugged=(--reader "Norvale Reader 0=$token")
((readers == 1)) || plugged=(--reader "Norvale Reader 0=Spare Token" --reader "Norvale Reader 1=$token")
environment=$("$ROOT/scripts/soft-token.sh" "$demo/token" "${plugged[@]}" 2>"$demo/soft-token.log") ||
  die "the soft token could not be made; $demo/soft-token.log tells why"
eval "$environment"

if [[ $ask ]]; then
  use_prefix x64 "$demo/prefix-desktop" managed
else
  start_display
  use_prefix x64 "$demo/prefix"
fi

step "Registering the provider in the Wine prefix $WINEPREFIX"
assemble_app x64 "$demo/app"
rm -f "$demo/keldaksp.log"
"$ROOT/scripts/register.sh" x64 "$WINEPREFIX" "$demo/app/keldaksp.dll" "$demo/keldaksp.log"
note "the provider's log: $demo/keldaksp.log"

cd "$demo"
rm -f ./*.der ./*.pem ./*.csr ./*.crt ./*.srl ./*.sig ./*.png ./*.txt ./*.enc

# picture WINDOW FILE: takes it once.
picture() {
  [[ -f $2 ]] || picture_of "$1" "$2" || die "no picture for $2 could be taken"
}

# answer PID: answers the dialogs that come up while the process runs.
answer() {
  local window name answered=' '
  while kill -0 "$1" 2>/dev/null; do
    window=$(xdotool search --onlyvisible --name '^(Enter PIN for|Norvale Token Works KSP)' 2>/dev/null | head -n 1) || true
    if [[ ! $window || $answered == *" $window "* ]]; then
      sleep 0.1
      continue
    fi
    name=$(xdotool getwindowname "$window" 2>/dev/null) || continue
    answered+="$window "
    if [[ $name == 'Enter PIN for'* ]]; then
      xdotool windowfocus --sync "$window" type "$KELDA_PIN"
      picture "$window" pin-dialog.png
      note "typing the PIN into \"$name\""
    else
      xdotool windowfocus --sync "$window" key Down
      picture "$window" reader-dialog.png
      note "choosing the second reader in \"$name\""
    fi
    xdotool key Return
  done
}

# keldactl ARGUMENT...: shows and runs the command, and answers the provider's dialogs.
keldactl() {
  local status=0
  step "keldactl $*"
  "$WINE" "$demo/app/keldactl.exe" "$@" </dev/null >output.txt 2>&1 &
  worker=$!
  if [[ $ask ]]; then
    note "if the PIN dialog comes up on your desktop: the token's PIN is $KELDA_PIN"
  else
    answer "$worker"
  fi
  wait "$worker" || status=$?
  worker=
  cat output.txt
  ((status == 0)) || die "keldactl could not do that (status $status)"
}

# on_linux TEXT COMMAND...: shows and runs a check on the Linux side.
on_linux() {
  local text=$1
  shift
  step "On the Linux side: $text"
  "$@" || die "that failed"
}

from_token() { pkcs11-tool --module "$KELDA_SOFTHSM" --token-label "$token" "$@" 2>/dev/null; }

keldactl create --key "$key" --length 2048
# The last line is the new key's: name, hex text, algorithm.
id=$(awk 'END { print $(NF - 1) }' output.txt)
# One identifier in 256 begins with 00 and so makes an empty name, which is found whatever it is called.
[[ $id != '(empty)' ]] || id=4B6579
[[ $id =~ ^([0-9A-F]{2})+$ ]] || die "keldactl did not tell the new key's hex text"
keldactl keys
keldactl show --key "$id"

keldactl request --key "$id" --subject "CN=Demo, O=Norvale Token Works" --out demo.csr
on_linux "openssl req -verify" openssl req -in demo.csr -verify -noout -subject
step "A throw-away CA issues the certificate"
{
  openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem -subj "/CN=Throw-away CA" -days 2
  openssl x509 -req -in demo.csr -CA ca.pem -CAkey ca-key.pem -CAcreateserial -out demo.crt -days 1
} 2>openssl.txt || die "OpenSSL could not issue a certificate; $demo/openssl.txt tells why"
keldactl certificate --key "$id" --set demo.crt

# The token's objects with their identifiers; those of the key by its label, since a name need not tell the whole of it.
objects() {
  from_token --login --pin "$KELDA_PIN" --list-objects |
    awk '/ Object;/ { kind = $0 } /label:/ { label = $2 } /ID:/ { print "   " kind ", ID " $2 " " label }' >objects.txt
  cat objects.txt
  token_id=$(sed -n "s/.*Public Key Object.*, ID \([0-9a-f]*\) $key\$/\1/p" objects.txt)
  [[ $token_id ]] || return 1
  for kind in "Public Key" "Private Key" Certificate; do
    grep -q "^ *$kind Object.*, ID $token_id " objects.txt || return 1
  done
}
on_linux "pkcs11-tool shows key pair and certificate with the same identifier" objects
on_linux "the public key, as the token gives it" \
  from_token --read-object --type pubkey --id "$token_id" --output-file public.der
openssl pkey -pubin -inform DER -in public.der -out public.pem || die "the public key cannot be read"

keldactl export --key "$id" --out exported.pem
on_linux "the provider exported the same key" cmp public.pem exported.pem

printf 'a secret\n' >secret.txt
on_linux "openssl encrypts with the exported key" \
  openssl pkeyutl -encrypt -pubin -inkey exported.pem -in secret.txt -out secret.enc
keldactl decrypt --key "$id" secret.enc decrypted.txt
on_linux "the token decrypted what openssl encrypted" cmp secret.txt decrypted.txt
keldactl encrypt --key "$id" secret.txt token.enc
keldactl decrypt --key "$id" token.enc again.txt
on_linux "and what the token itself encrypted" cmp secret.txt again.txt

signature=$(basename "$file").sig
keldactl sign --key "$id" --out "$signature" "$(windows_path "$file")"
keldactl verify --key "$id" --signature "$signature" "$(windows_path "$file")"
[[ $ask ]] || note "pictures of the dialogs: $(printf '%s ' "$demo"/*-dialog.png)"
leave_nothing
on_linux "openssl dgst -sha256 -verify public.pem -signature $signature $(basename "$file")" \
  openssl dgst -sha256 -verify public.pem -signature "$signature" "$file"
