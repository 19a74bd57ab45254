#!/usr/bin/env bash
# keldactl on a soft token: every command, its messages and its exit status, with OpenSSL's and pkcs11-tool's word on the
# results.
# shellcheck source=tests/e2e/common.sh
# shellcheck disable=SC2016,SC2154 # inner shells expand their own; common.sh assigns softhsm
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-keldactl
rm -rf "$work/out"
mkdir -p "$work/out"
environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=demo" --key Key1 --key Other:1024)
eval "$environment"
start_display
use_prefix x64 "$work/prefix"
assemble_app x64 "$work/app"
"$ROOT/scripts/register.sh" x64 "$WINEPREFIX" "$work/app/keldaksp.dll"
cd "$work/out" || exit

# keldactl ANSWER ARGUMENT...: runs it with its words in `said` and its exit status in `status`. ANSWER is what happens to
# a PIN dialog: the PIN to type, "cancel", or "none" when no dialog may come up.
keldactl() {
  local answer=$1 worker window asked=
  shift
  timeout -k 10 120 "$WINE" "$work/app/keldactl.exe" "$@" >said.txt 2>&1 <"${input:-/dev/null}" &
  worker=$!
  while kill -0 "$worker" 2>/dev/null; do
    window=$(xdotool search --onlyvisible --name '^Enter PIN for demo$' 2>/dev/null | head -n 1) || true
    if [[ ! $window || $asked ]]; then
      sleep 0.05
      continue
    fi
    asked=1
    case $answer in
      none) break ;;
      cancel) xdotool windowfocus --sync "$window" key Escape ;;
      *) xdotool windowfocus --sync "$window" type "$answer" && xdotool key Return ;;
    esac
  done
  if [[ $asked && $answer == none ]]; then
    kill "$worker"
    echo "a PIN dialog came up" >>said.txt
  fi
  status=0
  wait "$worker" || status=$?
  said=$(cat said.txt)
}

# expect NAME STATUS PATTERN: the last keldactl ended with STATUS and said PATTERN (extended regular expression).
expect() {
  if ((status == $2)) && grep -qE -e "$3" said.txt; then
    printf 'PASS: %s\n' "$1"
  else
    printf '%s\n(status %d; expected status %d and "%s")\nFAIL: %s\n' "$said" "$status" "$2" "$3" "$1"
  fi
}

openssl_verifies() { openssl dgst "-$1" -verify key1.pem -signature "$2" "$3"; }
hex_of_newcomer() { awk 'END { print $(NF - 1) }' said.txt; }

# ---- The command line ----
keldactl none
expect "without a command it shows the help and fails" 2 '^Usage: keldactl COMMAND'
keldactl none --help
expect "--help is no failure" 0 '^  verify +Verify a file'
for command in keys show create delete sign verify certificate request export import encrypt decrypt provider readers; do
  keldactl none "$command" --help
  expect "$command has a help" 0 "^Usage: keldactl $command"
done
keldactl none frobnicate
expect "an unknown command is refused" 2 'unknown command "frobnicate"'
keldactl none keys --frob
expect "an unknown option is refused" 2 'unknown option --frob'
keldactl none sign --key
expect "an option without its value is refused" 2 '--key needs a value'
keldactl none sign --key Key1
expect "a missing file is told" 2 'something is missing: FILE'
keldactl none sign --key Key1 a b
expect "a second file is refused" 2 'too much: "b"'
keldactl none keys --silent=yes
expect "a switch takes no value" 2 '--silent takes no value'
echo data >data.txt
keldactl none sign data.txt
expect "a missing key name is told" 2 '--key is missing'
keldactl none sign --key Key1 --hash sha3 data.txt
expect "an unknown hash is refused" 2 'unknown hash "sha3"; known are: md5 sha1 sha256 sha512'
keldactl none sign --key Key1 missing.txt
expect "a file that is not there is told with its status" 1 'ERROR_FILE_NOT_FOUND \(0x00000002\)'
keldactl none keys --provider "No such provider"
expect "a provider that is not registered is told" 1 'Opening the provider "No such provider" failed: NTE_'

# ---- Keys and signatures ----
keldactl none keys
expect "keys lists the names" 0 '^Key1 +4B657931 +RSA$'
check "keys lists every key once" test "$(wc -l <said.txt)" -eq 3
check "the public key is readable on the Linux side" public_key_of demo Key1 key1.pem
keldactl none export --key Key1 --out exported.pem
expect "export writes PEM" 0 'Exported the public key of "Key1"'
check "the exported key is the token's" cmp key1.pem exported.pem
for hash in md5 sha1 sha256 sha512; do
  keldactl "$KELDA_PIN" sign --key Key1 --hash "$hash" data.txt --out "$hash.sig"
  expect "sign with $hash" 0 'Signed "data.txt" .* 256 bytes in'
  check "openssl verifies the $hash signature" openssl_verifies "$hash" "$hash.sig" data.txt
  keldactl "$KELDA_PIN" verify --key Key1 --hash "$hash" --signature "$hash.sig" data.txt
  expect "verify with $hash" 0 'is good$'
done
keldactl "$KELDA_PIN" verify --key Key1 --hash sha1 --signature sha256.sig data.txt
expect "verify with another hash fails" 1 'does not match: NTE_FAIL'
keldactl "$KELDA_PIN" verify --key Other --signature sha256.sig data.txt
expect "verify with another key fails" 1 'does not match: NTE_FAIL'
echo more >>data.txt
keldactl "$KELDA_PIN" verify --key Key1 --signature sha256.sig data.txt
expect "verify of a changed file fails" 1 'does not match: NTE_FAIL \(0x80090020\)'
keldactl "$KELDA_PIN" sign --key 4b657931 data.txt
expect "a key is found by its hex text" 0 'in "data.txt.sig"'
check "openssl verifies that signature too" openssl_verifies sha256 data.txt.sig data.txt
keldactl "$KELDA_PIN" sign --key Key1 --reader "Norvale Reader 0" --out reader.sig data.txt
expect "a key is found by its reader and name" 0 'in "reader.sig"'
check "it is the same key" cmp reader.sig data.txt.sig
cp data.txt 'Größe 文.txt'
keldactl "$KELDA_PIN" sign --key Key1 'Größe 文.txt'
expect "file names beyond ASCII are UTF-8 in what it says" 0 'Signed "Größe 文.txt"'
check "and name the right file" openssl_verifies sha256 'Größe 文.txt.sig' data.txt
: >empty
keldactl "$KELDA_PIN" sign --key Key1 empty
expect "an empty file can be signed" 0 'Signed "empty"'
check "openssl verifies the empty file's signature" openssl_verifies sha256 empty.sig empty
keldactl none sign --key Nobody data.txt
expect "an unknown key is told as such" 1 'Opening the key "Nobody" failed: NTE_BAD_KEYSET \(0x80090016\)'
keldactl cancel sign --key Key1 --out cancelled.sig data.txt
expect "a cancelled dialog is told as such" 1 'SCARD_W_CANCELLED_BY_USER \(0x8010006E\): the user cancelled the dialog'
check "nothing is written then" test ! -e cancelled.sig
keldactl none show --key Key1
expect "show tells the length" 0 '^Length +2048 bits$'
check "show tells the usage in words" grep -qE '^Used for +decryption, signatures$' said.txt
check "show tells what is not offered" grep -qE '^Certificate +- NTE_NOT_SUPPORTED' said.txt
keldactl none provider
expect "provider tells the name" 0 '^Name +Norvale Token Works KSP v1.0$'
check "provider tells how keys are kept" grep -qE '^Keys are kept +in hardware, removable, random numbers from hardware$' said.txt
check "provider tells the algorithms" grep -qE '^RSA +encryption, signatures$' said.txt
keldactl none readers
expect "readers lists them" 0 '^Norvale Reader 0$'

# ---- Enrolment ----
keldactl none create --key New --length 1000
expect "a length that is not offered is refused" 1 'Choosing a length of 1000 bits failed: NTE_NOT_SUPPORTED'
keldactl none create --key New --length many
expect "a length that is no number is refused" 2 'not a number of bits: "many"'
keldactl none create --key New --key-spec other
expect "an unknown key spec is refused" 2 '--key-spec is exchange or signature'
keldactl none create --key Key1
expect "a name that is taken is refused" 1 'NTE_EXISTS \(0x8009000F\)'
keldactl cancel create --key New
expect "creating is cancelled with the dialog" 1 'SCARD_W_CANCELLED_BY_USER'
keldactl "$KELDA_PIN" create --key New --length 1024
expect "create tells the name that the key is found by" 0 '^From now on it is found under this name or hex text:$'
new=$(hex_of_newcomer)
# One identifier in 256 begins with 00: its name is empty, and every name finds it.
[[ $new != '(empty)' ]] || new=00
check "pkcs11-tool shows the new pair's label" bash -c \
  'pkcs11-tool --module "$1" --token-label demo --login --pin "$2" -O 2>/dev/null | grep -c "label: *New$" | grep -qx 2' \
  - "$softhsm" "$KELDA_PIN"
keldactl none show --key "$new"
expect "the new key has the length that was asked for" 0 '^Length +1024 bits$'
keldactl "$KELDA_PIN" request --key "$new" --subject "CN=Jörg Müller, O=Norvale" --out new.csr
expect "request writes a request" 0 'Wrote a request for "CN=Jörg Müller, O=Norvale"'
check "openssl verifies the request" bash -c 'openssl req -in new.csr -verify -noout 2>&1 | grep -q "verify OK"'
check "its subject is right" bash -c \
  'openssl req -in new.csr -noout -subject -nameopt utf8,sep_comma_plus | grep -qx "subject=CN=Jörg Müller,O=Norvale"'
for hash in md5 sha1 sha512; do
  keldactl "$KELDA_PIN" request --key "$new" --subject "CN=$hash" --hash "$hash"
  openssl req -in said.txt -verify -noout >verdict.txt 2>&1 || true
  check "openssl verifies a request with $hash" grep -q 'verify OK' verdict.txt
done
keldactl none request --key "$new" --subject "no name"
expect "a subject that is no name is told" 1 'CRYPT_E_INVALID_X500_STRING'
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem -subj "/CN=CA" -days 2 2>openssl.txt
openssl x509 -req -in new.csr -CA ca.pem -CAkey ca-key.pem -CAcreateserial -out new.crt -days 1 2>>openssl.txt
openssl x509 -in new.crt -outform DER -out new.der
keldactl none certificate --key Key1 --set new.crt
expect "another key's certificate is refused" 1 'does not belong to the key "Key1"'
keldactl none certificate --key "$new" --set data.txt
expect "what is no certificate is refused" 1 'Reading the certificate failed'
keldactl none certificate --key "$new" --set new.der
expect "a certificate is stored from DER" 0 'issued by "CN=CA"'
keldactl none certificate --key "$new" --set new.crt
expect "a second certificate is refused" 1 'NTE_EXISTS'
check "pkcs11-tool reads the certificate" bash -c \
  'pkcs11-tool --module "$1" --token-label demo --read-object --type cert --id \
    "$(pkcs11-tool --module "$1" --token-label demo -O --type cert 2>/dev/null | awk "/ID:/ { print \$2 }")" -o read.der &&
    cmp read.der new.der' - "$softhsm"
keldactl none certificate --key "$new" --set new.crt --out other.pem
expect "--set and --out go not together" 2 'give only one'

# ---- Blobs and ciphers ----
keldactl none export --key Key1
printf '%s\n' "$said" >shown.pem
check "export shows PEM" cmp shown.pem key1.pem
keldactl none export --key Key1 --format der --out key1.der
openssl pkey -pubin -in key1.pem -outform DER -out expected.der
check "export writes DER" cmp key1.der expected.der
keldactl none export --key Key1 --format blob --out key1.blob
check "export writes a blob" bash -c '[[ $(head -c 4 key1.blob) == RSA1 && $(stat -c %s key1.blob) == 283 ]]'
keldactl none export --key Key1 --format blob
expect "a blob is not shown" 2 '--out is missing'
keldactl none export --key Key1 --format hex --out x
expect "an unknown format is refused" 2 '--format is blob, pem or der'
{
  openssl genrsa -out private.pem 1024
  openssl rsa -in private.pem -pubout -out public.pem
  openssl rsa -in private.pem -pubout -outform DER -out public.der
  openssl rsa -in private.pem -RSAPublicKey_out -out pkcs1.pem
} 2>>openssl.txt
for file in public.pem public.der pkcs1.pem key1.blob; do
  keldactl "$KELDA_PIN" import --key "From $file" "$file"
  expect "import $file" 0 "Imported the key \"From $file\""
  imported=$(hex_of_newcomer)
  [[ $imported != '(empty)' ]] || imported=00
  keldactl none export --key "$imported" --out imported.pem
  check "what was imported from $file is that key" cmp imported.pem "$([[ $file == key1.blob ]] && echo key1.pem || echo public.pem)"
  keldactl "$KELDA_PIN" delete --key "$imported" --yes
  expect "delete what was imported from $file" 0 '^Deleted the key'
done
keldactl none import --key Private private.pem
expect "a private key in PEM is refused" 1 'holds no public key but: PRIVATE KEY'
{
  printf 'RSA2\0\4\0\0\3\0\0\0\x80\0\0\0\x40\0\0\0\x40\0\0\0\1\0\1'
  head -c 256 /dev/zero | tr '\0' '\125'
} >private.blob
keldactl "$KELDA_PIN" import --key Private private.blob
expect "a private blob is refused in plain words" 1 'this provider does not take private keys'
printf 'a secret\n' >secret.txt
openssl pkeyutl -encrypt -pubin -inkey key1.pem -in secret.txt -out secret.enc
keldactl "$KELDA_PIN" decrypt --key Key1 secret.enc decrypted.txt
expect "decrypt what openssl encrypted" 0 '9 bytes in "decrypted.txt"'
check "it is what was encrypted" cmp secret.txt decrypted.txt
keldactl "$KELDA_PIN" encrypt --key Key1 secret.txt again.enc
expect "encrypt" 0 '256 bytes in "again.enc"'
keldactl "$KELDA_PIN" decrypt --key Key1 again.enc again.txt
check "decrypt gives it back" cmp secret.txt again.txt
head -c 245 /dev/zero >longest
head -c 246 /dev/zero >longer
keldactl "$KELDA_PIN" encrypt --key Key1 longest longest.enc
expect "the longest file is encrypted" 0 '256 bytes'
keldactl none encrypt --key Key1 longer longer.enc
expect "a longer one is refused" 1 'encrypts at most 245 bytes'
keldactl "$KELDA_PIN" decrypt --key Key1 secret.txt nonsense
expect "what is no ciphertext is refused" 1 'Decrypting "secret.txt" failed: NTE_INTERNAL_ERROR'

# ---- Deleting ----
keldactl none delete --key Other
expect "delete asks, and takes no answer for no" 1 'Nothing was deleted'
echo yes >yes
input=yes keldactl "$KELDA_PIN" delete --key Other
expect "delete goes on with yes, and with the PIN" 0 'Deleted the key "Other"'
check "pkcs11-tool does not show the pair any more" bash -c \
  '! pkcs11-tool --module "$1" --token-label demo --login --pin "$2" -O 2>/dev/null | grep -q "label: *Other$"' \
  - "$softhsm" "$KELDA_PIN"
keldactl cancel delete --key Key1 --yes
expect "cancelling the dialog keeps the key" 1 'SCARD_W_CANCELLED_BY_USER'
keldactl none keys
expect "it is still listed" 0 '^Key1 '
