#!/bin/sh
# soft-token.sh: makes a fresh soft token (or several) in a folder of its own and tells the environment that programs need
# to see it.
#
#   eval "$(scripts/soft-token.sh DIR [options])"
#
#   DIR                     made anew each time; refused if it holds something else than a soft token
#   --reader NAME[=LABEL]   a reader, with the token LABEL in it or (without "=LABEL") empty; may be repeated.
#                           Default: one reader, "Norvale Reader 0=demo"
#   --pin PIN               user PIN of all tokens (default 123456); the security officer's is 87654321
#   --tries N               wrong PINs that lock a token (default 3, at most 15)
#   --key NAME[:BITS]       an RSA key pair made by pkcs11-tool on the first token; its identifier is the bytes of
#                           NAME, so that NAME is its CNG name, and so is its label. May be repeated. BITS: 2048
#   --key-on LABEL:NAME[:BITS]   the same on the token LABEL
#
# Standard output is shell code that exports
#   SOFTHSM2_CONF    SoftHSM's configuration, for pkcs11-tool and for the stand-in token module
#   KELDA_READERS    the reader file of the stand-in winscard and token module (format: standins/common/reader_file.h);
#                    replace it as a whole (write another file, mv it there) to plug and draw readers and tokens
#   KELDA_PIN        the user PIN
#   KELDA_SOFTHSM    SoftHSM's library, for pkcs11-tool --module
# The same lines are kept in DIR/env. Everything else goes to standard error.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
softhsm=/usr/lib/softhsm/libsofthsm2.so
so_pin=87654321
pin=123456
tries=3
readers=
keys=
newline='
'

say() { printf 'soft-token: %s\n' "$*" >&2; }
fail() {
  say "$*"
  exit 1
}

# The header above, without its comment marks.
usage() { sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; }

case "${1-}" in
  '' | -*)
    usage >&2
    [ "${1-}" = --help ] && exit 0
    exit 2
    ;;
esac
dir=$1
shift
while [ $# -gt 0 ]; do
  [ $# -ge 2 ] || fail "$1 lacks its value"
  case "$1" in
    --reader) readers="$readers$2$newline" ;;
    --pin) pin=$2 ;;
    --tries) tries=$2 ;;
    --key) keys="$keys:$2$newline" ;;
    --key-on) keys="$keys$2$newline" ;;
    *) fail "unknown option $1" ;;
  esac
  shift 2
done
[ -n "$readers" ] || readers="Norvale Reader 0=demo$newline"

if [ ! -e "$softhsm" ] || ! command -v softhsm2-util >/dev/null || ! command -v pkcs11-tool >/dev/null; then
  "$here/prepare.sh" >&2
fi

if [ -e "$dir" ]; then
  if [ ! -e "$dir/softhsm2.conf" ] && [ -n "$(ls -A "$dir")" ]; then
    fail "$dir is not a soft token's folder; it is left alone"
  fi
  rm -rf "$dir/tokens" "$dir/softhsm2.conf" "$dir/readers" "$dir/env"
fi
mkdir -p "$dir/tokens"
chmod 700 "$dir"
dir=$(cd "$dir" && pwd)

export SOFTHSM2_CONF="$dir/softhsm2.conf"
cat >"$SOFTHSM2_CONF" <<CONF
directories.tokendir = $dir/tokens
objectstore.backend = file
log.level = ERROR
slots.removable = false
CONF

serial_of() {
  pkcs11-tool --module "$softhsm" --list-token-slots |
    awk -v label="$1" '/token label/ { found = ($0 ~ ": " label "$") } found && /serial num/ { print $NF; exit }'
}

first_token=
printf '%s' "$readers" >"$dir/readers.new"
while IFS= read -r line; do
  label=
  case "$line" in *=*) label=${line#*=} ;; esac
  [ -n "$label" ] || continue
  say "making the token $label"
  softhsm2-util --init-token --free --label "$label" --pin "$pin" --so-pin "$so_pin" >&2
  serial=$(serial_of "$label")
  [ -n "$serial" ] || fail "the token $label cannot be found again"
  printf '%s %s\n' "$tries" "$tries" >"$dir/tokens/tries-$serial"
  # A card lists its private keys to everybody; the token module needs the PIN to do the same with SoftHSM's.
  (umask 077 && printf '%s\n' "$pin" >"$dir/tokens/pin-$serial")
  [ -n "$first_token" ] || first_token=$label
done <"$dir/readers.new"
mv "$dir/readers.new" "$dir/readers"

printf '%s' "$keys" | while IFS= read -r line; do
  label=${line%%:*}
  rest=${line#*:}
  name=${rest%%:*}
  bits=2048
  case "$rest" in *:*) bits=${rest#*:} ;; esac
  [ -n "$label" ] || label=$first_token
  say "making the key $name, $bits bits, on the token $label"
  id=$(printf '%s' "$name" | od -An -v -tx1 | tr -d ' \n')
  pkcs11-tool --module "$softhsm" --token-label "$label" --login --pin "$pin" --keypairgen --key-type "rsa:$bits" \
    --id "$id" --label "$name" --usage-sign --usage-decrypt >&2
done

cat >"$dir/env" <<ENV
export SOFTHSM2_CONF='$SOFTHSM2_CONF'
export KELDA_READERS='$dir/readers'
export KELDA_PIN='$pin'
export KELDA_SOFTHSM='$softhsm'
ENV
cat "$dir/env"
