#!/usr/bin/env bash
# keldactl on soft tokens: every command and option with its messages and its exit status, wrong uses included, with
# OpenSSL's and pkcs11-tool's word on the results.
# shellcheck source=tests/e2e/common.sh
# shellcheck disable=SC2016,SC2154 # inner shells expand their own; common.sh assigns softhsm
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-keldactl-$arch
rm -rf "$work/out"
mkdir -p "$work/out"
# The first reader's name ends the second's and begins the third's.
environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Reader 0=alpha" --reader "Norvale Reader 0=demo" \
  --reader "Reader 0 Key1=gamma" --reader "Empty Reader" --key-on demo:Key1 --key-on demo:Other:1024 \
  --key-on alpha:Key1:1024 --key-on alpha:Key2:1024 --key-on gamma:Key1:1024)
eval "$environment"
provider="Norvale Token Works KSP v1.0"
# plug LINE...: the readers that are connected, with their tokens.
plug() { printf '%s\n' "$@" >"$work/token/readers.new" && mv "$work/token/readers.new" "$work/token/readers"; }
plug "Norvale Reader 0=demo"
start_display
use_prefix "$arch" "$work/prefix"
assemble_app "$arch" "$work/app"
"$ROOT/scripts/register.sh" "$arch" "$WINEPREFIX" "$work/app/keldaksp.dll"
cd "$work/out" || exit

# keldactl ANSWER ARGUMENT...: runs it with its words in `said` and its exit status in `status`. ANSWER is what happens to
# the dialogs: the PIN to type, "cancel", or "none" when no PIN dialog may come up. A reader dialog gets the keys that
# `choose` names. What it writes to standard output goes to the file `piped` instead when that is set.
keldactl() {
  local answer=$1 worker window name asked=' '
  shift
  : >said.txt
  [[ ! ${piped-} ]] || : >"$piped"
  on "$arch" timeout -k 10 120 "$WINE" "$work/app/keldactl.exe" "$@" >>"${piped:-said.txt}" 2>>said.txt \
    <"${input:-/dev/null}" &
  worker=$!
  while kill -0 "$worker" 2>/dev/null; do
    window=$(xdotool search --onlyvisible --name '^(Enter PIN for|Norvale Token Works KSP)' 2>/dev/null | head -n 1) || true
    if [[ ! $window || $asked == *" $window "* ]]; then
      sleep 0.05
      continue
    fi
    name=$(xdotool getwindowname "$window" 2>/dev/null) || continue
    asked+="$window "
    if [[ $name != 'Enter PIN'* ]]; then
      # shellcheck disable=SC2086 # several keys
      xdotool windowfocus --sync "$window" key ${choose:-Escape}
    elif [[ $answer == none ]]; then
      xdotool windowfocus --sync "$window" key Escape
      echo "a PIN dialog came up" >>said.txt
    elif [[ $answer == cancel ]]; then
      xdotool windowfocus --sync "$window" key Escape
    else
      xdotool windowfocus --sync "$window" type "$answer" && xdotool key Return
    fi
  done
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
says() { grep -qE -e "$1" said.txt; }
says_not() { ! grep -qE -e "$1" said.txt; }

# json EXPRESSION: what the last keldactl said is JSON, and of it the Python expression on `j` is true.
json() { python3 -c 'import json, sys; j = json.load(open("said.txt")); sys.exit(not eval(sys.argv[1]))' "$1"; }

openssl_verifies() { openssl dgst "-$1" -verify key1.pem -signature "$2" "$3"; }
hex_of_newcomer() { sed -n '/^From now on/,$p' said.txt | awk 'NR == 3 { print $(NF - 1) }'; }
# of_newcomer: --key and the hex text of the key that was just made, or --nameless: one identifier in 256 begins with 00.
of_newcomer() {
  local hex
  hex=$(hex_of_newcomer)
  if [[ $hex == - ]]; then echo --nameless; else printf -- '--key %s' "$hex"; fi
}
# makes NAME ARGUMENT...: a keldactl that makes a key and must succeed, until the key has a name: one without would hide
# the others. `new` names it for the commands that follow.
makes() {
  local name=$1 tries
  shift
  for tries in 1 2 3 4 5; do
    keldactl "$KELDA_PIN" "$@"
    read -r -a new <<<"$(of_newcomer)"
    [[ ${new[0]} == --nameless ]] || break
    echo "(try $tries made a key without a name)"
    cp said.txt made.txt
    keldactl "$KELDA_PIN" delete --nameless --yes
    cp made.txt said.txt
  done
  expect "$name" 0 '^(Created|Imported) the key'
}
# token TOKEN ARGUMENT...: pkcs11-tool on a token, logged in.
token() { pkcs11-tool --module "$softhsm" --token-label "$1" --login --pin "$KELDA_PIN" "${@:2}" 2>/dev/null; }
# make_key TOKEN IDENTIFIER LABEL [TYPE]: a key pair made beside the provider.
make_key() { token "$1" --keypairgen --key-type "${4:-rsa:1024}" --id "$2" --label "$3" --usage-sign >/dev/null; }
drop_key() { token "$1" --delete-object --type privkey --id "$2" >/dev/null && token "$1" --delete-object --type pubkey --id "$2" >/dev/null; }
labels() { token demo -O | grep -c "label: *$1\$" || true; }

# ---- The command line ----
commands="keys show create delete export import sign verify encrypt decrypt certificate request provider readers version"
keldactl none
expect "without a command it shows the help and fails" 2 '^Usage: keldactl COMMAND'
for words in --help -h help '/?' 'help help'; do
  read -r -a asked <<<"$words"
  keldactl none "${asked[@]}"
  expect "$words is no failure" 0 '^  verify +Verify a file'
done
for command in $commands; do
  keldactl none "$command" --help
  expect "$command has a help" 0 "^Usage: keldactl $command"
  cp said.txt by-option.txt
  keldactl none help "$command"
  check "help $command tells the same" cmp said.txt by-option.txt
done
for word in -h '/?'; do
  keldactl none sign "$word"
  expect "sign $word is a help too" 0 '^Usage: keldactl sign'
done
for words in version --version; do
  keldactl none "$words"
  expect "$words tells the version" 0 '^keldactl 4\.2\.0\.1 \((64|32)-bit\)$'
done
# The page shows one width's help; they do not differ.
[[ $arch != x64 ]] || check "docs/keldactl.md has the commands' help" "$ROOT/scripts/keldactl-doc.sh" --check
keldactl none version --json
check "version --json is JSON" json 'j["version"] == "4.2.0.1"'
keldactl none frobnicate
expect "an unknown command is refused" 2 'unknown command "frobnicate"$'
keldactl none sing
expect "a mistyped command gets a suggestion" 2 'unknown command "sing"; did you mean sign\?'
keldactl none help sing
expect "so does help" 2 'did you mean sign\?'
keldactl none --key Key1 sign
expect "the command comes first" 2 'the command comes first, not "--key"'
keldactl none keys --frob
expect "an unknown option is refused" 2 'unknown option --frob$'
keldactl none keys --slient
expect "a mistyped option gets a suggestion" 2 'unknown option --slient; did you mean --silent\?'
keldactl none sign --key
expect "an option without its value is refused" 2 '--key needs a value'
keldactl none sign --key= data.txt
expect "so is one with an empty value behind =" 2 '--key needs a value'
keldactl none sign --key "" data.txt
expect "an empty key name is refused" 2 '--key is empty'
keldactl none sign --key Key1
expect "a missing file is told" 2 'FILE is missing'
keldactl none sign --key Key1 a b
expect "a second file is refused" 2 'too much: "b"'
keldactl none sign --key Key1 --key Other a
expect "a second --key is refused" 2 '--key was given more than once'
keldactl none sign --key Key1 --nameless a
expect "--key and --nameless exclude each other" 2 '--key and --nameless do not go together|--nameless and --key do not go together'
keldactl none keys --silent=yes
expect "a switch takes no value" 2 '--silent takes no value'
echo data >data.txt
keldactl none sign data.txt
expect "a missing key name is told" 2 '--key is missing'
keldactl none verify --key Key1 data.txt
expect "a missing signature is told" 2 '--signature is missing'
keldactl none verify --key Key1 --signature - -
expect "standard input is read only once" 2 'standard input can be read only once'
keldactl none request --key Key1
expect "a missing subject is told" 2 '--subject is missing'
keldactl none create
expect "a missing name of a new key is told" 2 '--key is missing'
keldactl none import data.txt
expect "a missing name of an imported key is told" 2 '--key is missing'
keldactl none sign --key Key1 --hash sha3 data.txt
expect "an unknown hash is refused" 2 '--hash is md5, sha1, sha256 or sha512, not "sha3"'
keldactl none sign --key Key1 missing.txt
expect "a file that is not there is told with its status" 3 'ERROR_FILE_NOT_FOUND \(0x00000002\)'
keldactl none keys --provider "No such provider"
expect "a provider that is not registered is told" 3 'Opening the provider "No such provider" failed: NTE_'
keldactl none keys --provider $'Evil\x1b[31m\x07'
expect "control characters do not reach the terminal" 3 'Evil\\x1B\[31m\\x07'

# ---- Keys and signatures ----
keldactl none keys
expect "keys lists the names" 0 '^Key1 +4B657931 +RSA$'
check "keys lists every key once" test "$(wc -l <said.txt)" -eq 3
keldactl none keys --json
check "keys --json tells the same" json 'j["provider"] == "Norvale Token Works KSP v1.0" and sorted((k["name"], k["hex"], k["algorithm"]) for k in j["keys"]) == [("Key1", "4B657931", "RSA"), ("Other", "4F74686572", "RSA")]'
check "the public key is readable on the Linux side" public_key_of demo Key1 key1.pem
keldactl none export --key Key1 --out exported.pem
expect "export writes PEM" 0 'Exported the public key of "Key1"'
check "the exported key is the token's" cmp key1.pem exported.pem
for hash in md5 sha1 sha256 sha512; do
  keldactl "$KELDA_PIN" sign --key Key1 --hash "$hash" data.txt --out "$hash.sig"
  expect "sign with $hash" 0 'Signed "data.txt" .* with the key "Key1" \(4B657931\): 256 bytes in'
  check "openssl verifies the $hash signature" openssl_verifies "$hash" "$hash.sig" data.txt
  keldactl "$KELDA_PIN" verify --key Key1 --hash "$hash" --signature "$hash.sig" data.txt
  expect "verify with $hash" 0 'is good$'
done
keldactl "$KELDA_PIN" verify --key Key1 --hash sha1 --signature sha256.sig data.txt
expect "verify with another hash fails" 6 'does not match: NTE_FAIL'
keldactl "$KELDA_PIN" verify --key Other --signature sha256.sig data.txt
expect "verify with another key fails" 6 'does not match: NTE_FAIL'
echo more >>data.txt
keldactl "$KELDA_PIN" verify --key Key1 --signature sha256.sig data.txt
expect "verify of a changed file fails" 6 'does not match: NTE_FAIL \(0x80090020\)'
keldactl "$KELDA_PIN" sign --key 4b657931 data.txt
expect "a key is found by its hex text" 0 'in "data.txt.sig"'
check "openssl verifies that signature too" openssl_verifies sha256 data.txt.sig data.txt
keldactl "$KELDA_PIN" sign --key Key1 --reader "Norvale Reader 0" --out reader.sig data.txt
expect "a key is found by its reader and name" 0 'in "reader.sig"'
check "it is the same key" cmp reader.sig data.txt.sig
keldactl "$KELDA_PIN" sign --key '\\.\Norvale Reader 0\Key1' --out qualified.sig data.txt
expect "so is one whose name carries the reader" 0 'with the key "Key1" \(4B657931\).* in "qualified.sig"'
keldactl none sign --key '\\.\Norvale Reader 0\Key1' --reader Other data.txt
expect "two readers contradict each other" 2 '--key names the reader "Norvale Reader 0" and --reader "Other"'
input=data.txt piped=piped.sig keldactl "$KELDA_PIN" sign --key Key1 -
expect "standard input is signed to standard output" 0 'Signed standard input .* in standard output'
check "its signature is right" cmp piped.sig data.txt.sig
piped=piped2.sig keldactl "$KELDA_PIN" sign --key Key1 --out - data.txt
check "--out - writes to standard output" cmp piped2.sig data.txt.sig
check "and no file of that name" test ! -e ./-
input=piped.sig keldactl "$KELDA_PIN" verify --key Key1 --signature - data.txt
expect "a signature comes from standard input" 0 'is good$'
cp data.txt 'Größe 文.txt'
keldactl "$KELDA_PIN" sign --key Key1 'Größe 文.txt'
expect "file names beyond ASCII are UTF-8 in what it says" 0 'Signed "Größe 文.txt"'
check "and name the right file" openssl_verifies sha256 'Größe 文.txt.sig' data.txt
: >empty
keldactl "$KELDA_PIN" sign --key Key1 empty
expect "an empty file can be signed" 0 'Signed "empty"'
check "openssl verifies the empty file's signature" openssl_verifies sha256 empty.sig empty
keldactl none sign --key Nobody data.txt
expect "an unknown key is told as such" 3 '^keldactl sign: no key "Nobody" in "Norvale Token Works KSP v1.0"$'
check "and why it may be so" says 'found under their identifier, not under the name that they were created with'
for name in Key1XYZ key1xyz 4B65793141 4B6579; do
  keldactl none sign --key "$name" data.txt
  expect "$name is not taken for Key1" 3 "no key \"$name\" in \"Norvale"
done
keldactl none sign --key Key1XYZ data.txt
check "the key that was offered is named" says 'the provider offered "Key1" \(4B657931\) instead$'
keldactl "$KELDA_PIN" sign --key KEY1 --out upper.sig data.txt
expect "capitals and small letters are the same to the provider" 0 'with the key "Key1" \(4B657931\)'
keldactl cancel sign --key Key1 --out cancelled.sig data.txt
expect "a cancelled dialog is told as such" 4 'SCARD_W_CANCELLED_BY_USER \(0x8010006E\): the user cancelled the dialog'
check "it is said what a locked PIN needs" says 'PIN is locked, the token.s administrator can unlock it'
check "nothing is written then" test ! -e cancelled.sig
mkdir -p folder
keldactl "$KELDA_PIN" sign --key Key1 --out folder data.txt
expect "what may not be written ends as access denied" 5 'Writing "folder" failed: ERROR_ACCESS_DENIED'
keldactl none show --key Key1
expect "show tells the length" 0 '^Length +2048 bits$'
check "show tells the usage in words" grep -qE '^Used for +decryption, signatures$' said.txt
check "show says what the export policy means here" says '^Export policy +in plain text .*only the public key ever leaves the token'
check "show tells the hex text" says '^Hex text +4B657931$'
check "show tells what is not offered" grep -qE '^Certificate +- NTE_NOT_SUPPORTED' said.txt
keldactl none show --key Key1 --json
check "show --json has the values" json 'j["name"] == "Key1" and j["hex"] == "4B657931" and j["length"] == 2048 and j["usage"] == 3 and j["certificate"] is None and "NTE_NOT_SUPPORTED" in j["refused"]["certificate"]'
keldactl none provider
expect "provider tells the name" 0 '^Name +Norvale Token Works KSP v1.0$'
check "provider tells how keys are kept" grep -qE '^Keys are kept +in hardware, removable, random numbers from hardware$' said.txt
check "provider tells the algorithms" grep -qE '^RSA +encryption, signatures$' said.txt
check "provider tells its version as people write it" says '^Version +1\.0\.1$'
keldactl none provider --json
check "provider --json has the values" json 'j["name"] == "Norvale Token Works KSP v1.0" and j["version"] == 0x01000100 and j["algorithms"][0]["name"] == "RSA"'
keldactl none readers
expect "readers lists them" 0 '^Norvale Reader 0 +yes$'
keldactl none readers --json
check "readers --json has the values" json 'j == {"readers": [{"name": "Norvale Reader 0", "token": True}]}'
keldactl none readers --provider "$provider"
expect "a provider that does not tell its reader is no failure" 0 'does not tell its reader'

# ---- Enrolment ----
keldactl none create --key New --length 1000
expect "a length that is not offered is refused" 1 'Choosing a length of 1000 bits failed: NTE_NOT_SUPPORTED'
keldactl none create --key New --length many
expect "a length that is no number is refused" 2 '--length is a number from 1 to 65536, not "many"'
keldactl none create --key New --key-spec other
expect "an unknown key spec is refused" 2 '--key-spec is exchange or signature, not "other"'
keldactl none create --key Key1
expect "a name that is taken is refused" 1 'NTE_EXISTS \(0x8009000F\)'
check "with a way out" says 'Choose another name, or replace the key with --overwrite'
keldactl none create --key Größe文
expect "a name that a label cannot hold is refused" 1 'cannot be a token.s label: .* such as "文"'
keldactl none create --key "$(printf 'x%.0s' {1..63})"
expect "a name too long for a label is refused" 1 'is too long: a token.s label has at most 62 characters, and this has 63'
keldactl none create --key ""
expect "an empty name is refused" 2 '--key is empty'
keldactl none import --key Größe文 key1.pem
expect "import refuses such names too" 1 'cannot be a token.s label'
keldactl cancel create --key New
expect "creating is cancelled with the dialog" 4 'SCARD_W_CANCELLED_BY_USER'
makes "create makes a key" create --key New --length 1024
check "create tells the name that the key is found by" says '^From now on it is found under this name or hex text:$'
check "pkcs11-tool shows the new pair's label" bash -c \
  'pkcs11-tool --module "$1" --token-label demo --login --pin "$2" -O 2>/dev/null | grep -c "label: *New$" | grep -qx 2' \
  - "$softhsm" "$KELDA_PIN"
keldactl none show "${new[@]}"
expect "the new key has the length that was asked for" 0 '^Length +1024 bits$'
keldactl "$KELDA_PIN" request "${new[@]}" --subject "CN=Jörg Müller, O=Norvale" --out new.csr
expect "request writes a request" 0 'Wrote a request for "CN=Jörg Müller, O=Norvale"'
check "openssl verifies the request" bash -c 'openssl req -in new.csr -verify -noout 2>&1 | grep -q "verify OK"'
check "its subject is right" bash -c \
  'openssl req -in new.csr -noout -subject -nameopt utf8,sep_comma_plus | grep -qx "subject=CN=Jörg Müller,O=Norvale"'
for hash in md5 sha1 sha512; do
  keldactl "$KELDA_PIN" request "${new[@]}" --subject "CN=$hash" --hash "$hash"
  openssl req -in said.txt -verify -noout >verdict.txt 2>&1 || true
  check "openssl verifies a request with $hash" grep -q 'verify OK' verdict.txt
done
keldactl none request "${new[@]}" --subject "no name"
expect "a subject that is no name is told" 1 'CRYPT_E_INVALID_X500_STRING'
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem -subj "/CN=CA" -days 2 2>openssl.txt
openssl x509 -req -in new.csr -CA ca.pem -CAkey ca-key.pem -CAcreateserial -out new.crt -days 1 2>>openssl.txt
openssl x509 -in new.crt -outform DER -out new.der
keldactl none certificate --key Key1 --set new.crt
expect "another key's certificate is refused" 1 'does not belong to the key "Key1"'
keldactl none certificate "${new[@]}" --set data.txt
expect "what is no certificate is refused" 1 'Reading the certificate failed'
keldactl none certificate "${new[@]}" --set new.der
expect "a certificate is stored from DER" 0 'issued by "CN=CA"'
keldactl none certificate "${new[@]}" --set new.crt
expect "a second certificate is refused" 1 'NTE_EXISTS'
check "pkcs11-tool reads the certificate" bash -c \
  'pkcs11-tool --module "$1" --token-label demo --read-object --type cert --id \
    "$(pkcs11-tool --module "$1" --token-label demo -O --type cert 2>/dev/null | awk "/ID:/ { print \$2 }")" -o read.der &&
    cmp read.der new.der' - "$softhsm"
keldactl none certificate "${new[@]}" --set new.crt --out other.pem
expect "--set and --out go not together" 2 '(--set and --out|--out and --set) do not go together'
keldactl none certificate "${new[@]}"
expect "fetching a certificate says what the provider does not do" 1 'the provider stores certificates and does not hand them out'
input=new.der keldactl none certificate --key Key1 --set -
expect "a certificate comes from standard input" 1 'does not belong to the key "Key1"'
piped=piped.csr keldactl "$KELDA_PIN" request "${new[@]}" --subject CN=Pipe --out -
check "a request goes to standard output" bash -c 'openssl req -in piped.csr -verify -noout 2>&1 | grep -q "verify OK"'

# ---- Overwriting ----
keldactl none create --key New --overwrite
expect "--overwrite asks, and takes no answer for no" 4 'nothing was created and nothing was lost'
check "it names what may be lost" says '^The key pair that was created as "New" will be lost'
check "by the names that it may have" says '^  "Key1" \(4B657931\)$'
check "nothing is lost then" test "$(labels New)" -eq 2
makes "--yes answers for scripts" create --key New --length 512 --overwrite --yes
check "what was lost is told" says '^The key .* is lost\.$'
check "there is one pair of this label" test "$(labels New)" -eq 2
echo yes >yes
input=yes makes "--overwrite goes on with yes" create --key New --length 512 --overwrite --key-spec signature
latest=("${new[@]}")
makes "--overwrite does not ask when there is nothing to lose" create --key Fresh --length 512 --overwrite
check "and nothing is lost" says_not 'is lost'
keldactl "$KELDA_PIN" delete "${new[@]}" --yes
expect "delete it" 0 '^Deleted the key'
new=("${latest[@]}")
keldactl "$KELDA_PIN" delete "${new[@]}" --yes
expect "delete the other" 0 '^Deleted the key'

# ---- Blobs and ciphers ----
keldactl none export --key Key1
check "export shows PEM" cmp said.txt key1.pem
piped=piped.der keldactl none export --key Key1 --format der --out -
keldactl none export --key Key1 --format der --out key1.der
openssl pkey -pubin -in key1.pem -outform DER -out expected.der
check "export writes DER" cmp key1.der expected.der
check "export pipes DER" cmp piped.der expected.der
keldactl none export --key Key1 --format blob --out key1.blob
check "export writes a blob" bash -c '[[ $(head -c 4 key1.blob) == RSA1 && $(stat -c %s key1.blob) == 283 ]]'
keldactl none export --key Key1 --format blob
expect "a blob is not shown" 2 '--out is missing'
keldactl none export --key Key1 --format hex --out x
expect "an unknown format is refused" 2 '--format is pem, der or blob, not "hex"'
{
  openssl genrsa -out private.pem 1024
  openssl rsa -in private.pem -pubout -out public.pem
  openssl rsa -in private.pem -pubout -outform DER -out public.der
  openssl rsa -in private.pem -RSAPublicKey_out -out pkcs1.pem
} 2>>openssl.txt
for file in public.pem public.der pkcs1.pem key1.blob; do
  makes "import $file" import --key "From $file" "$file"
  check "import $file says so" says "Imported the key \"From $file\""
  keldactl none export "${new[@]}" --out imported.pem
  check "what was imported from $file is that key" cmp imported.pem "$([[ $file == key1.blob ]] && echo key1.pem || echo public.pem)"
  keldactl "$KELDA_PIN" delete "${new[@]}" --yes
  expect "delete what was imported from $file" 0 '^Deleted the key'
done
keldactl none import --key Private private.pem
expect "a private key in PEM is refused" 1 'holds no public key but: PRIVATE KEY'
{
  printf 'RSA2\0\4\0\0\3\0\0\0\x80\0\0\0\x40\0\0\0\x40\0\0\0\1\0\1'
  head -c 256 /dev/zero | tr '\0' '\125'
} >private.blob
input=public.pem makes "a public key comes from standard input" import --key Piped -
keldactl "$KELDA_PIN" delete "${new[@]}" --yes
expect "delete that one" 0 '^Deleted the key'
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
input=again.enc piped=piped.txt keldactl "$KELDA_PIN" decrypt --key Key1 - -
check "decrypt pipes" cmp secret.txt piped.txt
head -c 245 /dev/zero >longest
head -c 246 /dev/zero >longer
keldactl "$KELDA_PIN" encrypt --key Key1 longest longest.enc
expect "the longest file is encrypted" 0 '256 bytes'
keldactl none encrypt --key Key1 longer longer.enc
expect "a longer one is refused" 1 'encrypts at most 245 bytes'
keldactl "$KELDA_PIN" decrypt --key Key1 secret.txt nonsense
expect "what is no ciphertext is refused" 1 'Decrypting "secret.txt" with the key "Key1" \(4B657931\) failed: NTE_INTERNAL_ERROR'

# ---- Keys that are in the way ----
make_key demo 1b5b33316d07 Evil
keldactl none keys
check "control characters of a key's name are shown as such" says '^\\x1B\[31m\\x07 +1B5B33316D07 +RSA$'
keldactl none show --key 1B5B33316D07
expect "the hex text finds it" 0 '^Hex text +1B5B33316D07$'
drop_key demo 1b5b33316d07
make_key demo 6b657931 Lower
keldactl none delete --key key1 --yes
expect "keys that differ in capitals only are not deleted unasked" 1 '2 keys in .* answer to "key1", .*; nothing was deleted$'
keldactl none delete --key key1
expect "asked about, they are warned of" 4 'warning: 2 keys in .* answer to "key1"'
drop_key demo 6b657931
plug "Norvale Reader 0=demo"
make_key demo 00aabb Hidden
keldactl none keys
expect "a key without a name is listed" 0 '^\(no name\) +- +RSA$'
check "and warned of, with the way out" says 'warning: The token holds a key without a name .*"keldactl delete --nameless"'
keldactl none keys --json
check "the warning does not spoil the JSON" bash -c 'grep -v ^keldactl said.txt | python3 -m json.tool'
keldactl none show --nameless
expect "show --nameless shows it" 0 '^Length +1024 bits$'
keldactl none sign --key Nobody data.txt
expect "a failed search warns of it" 3 'holds a key without a name'
keldactl "$KELDA_PIN" delete --nameless --yes
expect "delete --nameless removes it" 0 '^Deleted the key without a name\.$'
keldactl none show --nameless
expect "then there is none" 3 'no key without a name in'
check "the others are still there" test "$(labels Key1)" -eq 2
make_key demo 99 Curve EC:prime256v1
keldactl none keys
expect "a key that is no RSA key makes the list fail, and that is said" 1 'One key on the token that is not an RSA key is enough'
drop_key demo 99

# ---- Readers and tokens ----
plug
keldactl none readers
expect "no reader is no failure" 0 '^There are no readers\.$'
keldactl none keys
expect "no reader at all is told" 3 'There is no reader: connect one'
plug "Norvale Reader 0"
keldactl none keys --silent
expect "no token in any reader is told" 3 'No reader holds a token: put the token in'
choose=Escape keldactl none keys
expect "a cancelled reader dialog is told as such" 4 'ERROR_CANCELLED \(0x000004C7\)'
plug "Reader 0=alpha" "Norvale Reader 0=demo" "Reader 0 Key1=gamma" "Empty Reader"
keldactl none keys --silent --reader "Reader 0"
expect "silent takes the first reader" 0 '^Key2 '
for reader in "Norvale Reader 0" "Reader 0 Key1"; do
  keldactl none keys --silent --reader "$reader"
  expect "$reader is not taken for Reader 0" 3 "works with the reader \"Reader 0\", not \"$reader\"$"
  check "and it is said how to choose" says 'Readers with a token: "Reader 0", "Norvale Reader 0", "Reader 0 Key1"\. .*choose in its dialog'
  keldactl none sign --silent --reader "$reader" --key Key1 data.txt
  expect "sign with $reader does nothing" 3 'works with the reader "Reader 0"'
done
keldactl none keys --silent --reader "Reader"
expect "a reader that is not there is told" 3 'there is no reader "Reader"$'
keldactl none keys --reader "Empty Reader"
expect "a reader without a token is told" 3 'there is no token in the reader "Empty Reader"$'
choose=Return keldactl none keys
expect "a reader without a token in the dialog is told" 1 'In the reader dialog only one of these will do'
choose="Down Return" keldactl none keys --reader "Norvale Reader 0"
expect "the user's choice is compared, too" 0 '^Other '
choose="Down Down Return" keldactl none keys --reader "Norvale Reader 0"
expect "another choice is told" 3 'works with the reader "Reader 0", not "Norvale Reader 0"$'
plug "Norvale Reader 0=demo"

# ---- The options that many commands share ----
declare -A words=([keys]='' [provider]='' [show]='--key Key1' [export]='--key Key1' [sign]='--key Key1 data.txt'
  [verify]='--key Key1 --signature sha256.sig data.txt' [encrypt]='--key Key1 secret.txt x' [decrypt]='--key Key1 again.enc x'
  [certificate]='--key Key1' [request]='--key Key1 --subject CN=x' [delete]='--key Key1 --yes' [create]='--key Never'
  [import]='--key Never public.pem')
for command in "${!words[@]}"; do
  read -r -a rest <<<"${words[$command]}"
  keldactl none "$command" --silent --reader Nowhere "${rest[@]}"
  expect "$command looks at --reader" 3 "^keldactl $command: there is no reader \"Nowhere\"\$"
  keldactl none "$command" --provider "No such provider" "${rest[@]}"
  expect "$command looks at --provider" 3 "^keldactl $command: Opening the provider \"No such provider\" failed"
  [[ ${rest[*]} == *Key1* ]] || continue
  keldactl none "$command" "${rest[@]/#Key1/Nobody}"
  expect "$command looks for its key" 3 "^keldactl $command: no key \"Nobody\" in"
  keldactl none "$command" --nameless "${rest[@]:2}"
  expect "$command knows --nameless" 3 "^keldactl $command: no key without a name in"
  keldactl none "$command" "${rest[@]:2}"
  expect "$command needs one of them" 2 '--key is missing'
done
check "none of them made a file" test ! -e x
check "nor a key" test "$(labels Never)" -eq 0

# ---- The certificate store, and two keys of one name ----
certify() {
  openssl x509 -new -force_pubkey "$1" -subj "$2" -CA ca.pem -CAkey ca-key.pem -CAcreateserial -days 1 -out "$3" 2>>openssl.txt
}
thumbprint_of() { openssl x509 -in "$1" -noout -fingerprint -sha1 | sed 's/.*=//;s/://g'; }
certify key1.pem '/CN=Jane Doe' jane.crt
jane=$(thumbprint_of jane.crt)
keldactl none certificate --install --key Key1
expect "--install does not take an option for its file" 1 'NTE_NOT_SUPPORTED'
keldactl none certificate --install= --key Key1
expect "nor nothing behind =" 2 '--install needs a value'
keldactl none certificate --key Key1 --install -dash.crt
expect "nor a file that looks like an option" 2 'unknown option -dash'
cp jane.crt ./-dash.crt
keldactl none certificate --key Key1 --install=-dash.crt
expect "which goes behind =" 0 'tied to the key "Key1"'
keldactl none certificate --install jane.crt --key Key1
expect "--install takes the next word" 0 'tied to the key "Key1"'
input=jane.crt keldactl none certificate --key Key1 --install -
expect "--install takes standard input" 0 'tied to the key "Key1"'
keldactl none certificate --key Key1 --install jane.crt other.crt
expect "--install takes one file" 2 'too much: "other.crt"'
# The same public key under another identifier.
token demo --write-object key1.pem.der --type pubkey --id 4b657932 --label Twin >/dev/null
keldactl none certificate --key Key2 --install jane.crt
expect "a certificate is tied to another key" 0 'tied to the key "Key2"'
keldactl none certificates
expect "it points at that one" 0 "^$jane +CN=Jane Doe +[-0-9]+ +4B657932 +yes\$"
check "and there is one entry" test "$(grep -c "$jane" said.txt)" -eq 1
token demo --delete-object --type pubkey --id 4b657932 >/dev/null
keldactl none certificate --key Key1 --install jane.crt
expect "and is tied back" 0 'tied to the key "Key1"'
keldactl none certificates --reader Nowhere
expect "certificates looks at --reader" 3 'there is no reader "Nowhere"$'
keldactl none certificates --silent --provider "$provider"
expect "certificates knows --silent and --provider" 0 "^$jane "
keldactl none certificates --provider "No such provider"
expect "another provider has none" 0 '^No certificate in your store points at "No such provider"\.$'
plug "Reader 0=alpha"
keldactl none certificates
expect "another token's key of the same name is not taken for its own" 0 "^$jane .* 4B657931 +another key\$"
keldactl none certificate --key Key1 --uninstall
expect "nor is the certificate uninstalled with it" 3 'No certificate in your store belongs to the key "Key1" \(4B657931\)$'
check "that is said" says "warning: the certificate of \"CN=Jane Doe\" \($jane\) points at a key of this name and stays: it belongs to another key"
check "with the way out" says 'keldactl certificates --remove THUMBPRINT'
keldactl none export --key Key1 --out alpha.pem
certify alpha.pem '/CN=Alpha' alpha.crt
keldactl none certificate --key Key1 --install alpha.crt
expect "the other key has a certificate too" 0 'tied to the key "Key1"'
keldactl "$KELDA_PIN" delete --key Key1 --yes --certificates
expect "delete --certificates takes the deleted key's" 0 "^Took its certificate $(thumbprint_of alpha.crt) out of your store\.\$"
check "and says which stays" says "warning: the certificate of \"CN=Jane Doe\" \($jane\) points at a key of this name and stays"
plug "Norvale Reader 0=demo"
keldactl none certificates
check "the other token's stays" bash -c 'grep -q "^$1 .* yes$" said.txt && ! grep -q CN=Alpha said.txt' - "$jane"
keldactl none certificate --key Key1 --uninstall
expect "and is uninstalled with its own key" 0 "^Took the certificate of \"CN=Jane Doe\" \($jane\) out of your store"
keldactl none certificates
expect "then there is none" 0 '^No certificate in your store'

# ---- Another provider, and a terminal ----
# Wine's own provider keeps keys in memory only, and its ncrypt.dll is no router.
elsewhere() { WINEDLLOVERRIDES="ncrypt,winscard=b;mscoree=;mshtml=" keldactl none "$@" --provider "Microsoft Software Key Storage Provider"; }
elsewhere provider
expect "provider works with another provider" 0 '^Name +'
elsewhere create --key Größe文 --length 1024
expect "create does, with a name that no label could hold" 0 '^Created the key "Größe文"\.$'
elsewhere keys
expect "what it does not offer is told as such" 1 'Listing the keys failed: NTE_NOT_SUPPORTED'
on_terminal() { script -qec "$WINE $work/app/keldactl.exe frob" /dev/null; }
if [[ $arch == x64 ]]; then
  check "a terminal gets colours" grep -q $'\x1b\\[31mkeldactl:' <(on_terminal)
  export NO_COLOR=1
  check "but not under NO_COLOR" bash -c '! grep -q "31m"' <(on_terminal)
  unset NO_COLOR
fi
keldactl none frob
check "a file gets none" says_not $'\x1b'
check "the program asks for no more rights than the caller has" grep -qa 'level="asInvoker"' "$work/app/keldactl.exe"
check "the program carries its version" python3 -c 'import sys; sys.exit("4.2.0.1".encode("utf-16-le") not in open(sys.argv[1], "rb").read())' "$work/app/keldactl.exe"

# ---- Deleting ----
keldactl none delete --key OtherKeyThatDoesNotExist --yes
expect "a longer name deletes nothing" 3 'no key "OtherKeyThatDoesNotExist" in .*; the provider offered "Other" \(4F74686572\) instead'
check "nothing is gone" test "$(labels Other)" -eq 2
keldactl none delete --key Other
expect "delete asks, and takes no answer for no" 4 'nothing was deleted'
check "it names the key by name and hex text" says 'Delete the key "Other" \(4F74686572\) from'
input=yes keldactl "$KELDA_PIN" delete --key Other
expect "delete goes on with yes, and with the PIN" 0 'Deleted the key "Other" \(4F74686572\)'
check "pkcs11-tool does not show the pair any more" test "$(labels Other)" -eq 0
keldactl cancel delete --key Key1 --yes
expect "cancelling the dialog keeps the key" 4 'SCARD_W_CANCELLED_BY_USER'
keldactl none keys
expect "it is still listed" 0 '^Key1 '
