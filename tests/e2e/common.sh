# shellcheck shell=bash
# Shared by the end-to-end scripts; sourced. They report one line for each check: "PASS: name" or "FAIL: name".
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

trap leave_nothing EXIT
trap 'exit 130' INT TERM

export softhsm=/usr/lib/softhsm/libsofthsm2.so
work= # the folder of the script that sources this

# check NAME COMMAND...: passes when COMMAND succeeds.
check() {
  local name=$1 output
  shift
  if output=$("$@" 2>&1); then
    printf 'PASS: %s\n' "$name"
  else
    printf '%s\nFAIL: %s\n' "$output" "$name"
  fi
}

# driver PROGRAM FILTER: runs a GoogleTest program of this folder and reports each of its cases.
driver() {
  local program=$1 filter=$2 log status=0
  log=$work/$(basename "$program" .exe).log
  timeout -k 10 240 "$WINE" "$program" "--gtest_filter=$filter" >"$log" 2>&1 </dev/null || status=$?
  tr -d '\r' <"$log" | sed -n \
    -e 's/^\[       OK \] \([^ ]*\) .*/PASS: \1/p' \
    -e 's/^\[  FAILED  \] \([^ ,]*\).* (.*ms)$/FAIL: \1/p'
  if ! grep -q '^\[==========\].* ran\.' "$log"; then
    printf 'FAIL: %s ended early, with status %d\n' "$(basename "$program")" "$status"
  fi
  ((status == 0)) || grep -v '^\[ *\(OK\|RUN\|-*\) *\]' "$log" || true
}

# public_key_of TOKEN LABEL FILE: the public key of a token's key pair as PEM, read on the Linux side.
public_key_of() {
  pkcs11-tool --module "$softhsm" --token-label "$1" --read-object --type pubkey --label "$2" --output-file "$3.der" &&
    openssl pkey -pubin -inform DER -in "$3.der" -out "$3"
}
