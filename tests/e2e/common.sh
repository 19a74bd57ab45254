# shellcheck shell=bash
# Shared by the end-to-end scripts; sourced. They report one line for each check: "PASS: name" or "FAIL: name".
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

# A Wine prefix takes 0.6 GB and is made in seconds: none stays, unless the script runs once more.
finish() {
  leave_nothing
  [[ -v KELDA_ONCE || ! $work ]] || rm -rf "$work"/prefix*
}
trap finish EXIT
trap 'exit 130' INT TERM

export softhsm=/usr/lib/softhsm/libsofthsm2.so
work= # the folder of the script that sources this
# The width of the Windows programs: x64 or x86.
arch=${KELDA_E2E_ARCH:-x64}
without_token=$(why_no_soft_token "$arch")
if [[ $without_token ]]; then
  printf 'SKIP: no soft token for %s: %s\n' "$arch" "$without_token"
  exit 0
fi

# How strict the token module is (standins/softtoken/strictness.h), in the words of the results.
declare -A strictness=([0]=forgiving [1]=strict [all]=unadapted)
KELDA_STRICT=${KELDA_STRICT:-0}
export KELDA_STRICT
mode=${strictness[$KELDA_STRICT]}

# once_for STRICTNESS...: unless it is one of these runs, the script is run anew for each and ends with them.
once_for() {
  [[ ! -v KELDA_ONCE ]] || return 0
  local status=0
  for KELDA_STRICT in "$@"; do
    KELDA_ONCE=1 "$0" || status=$?
  done
  exit "$status"
}

# check NAME COMMAND...: passes when COMMAND succeeds.
check() {
  local name=$1 output
  shift
  if output=$("$@" 2>&1); then
    printf 'PASS: %s (%s)\n' "$name" "$mode"
  else
    printf '%s\nFAIL: %s (%s)\n' "$output" "$name" "$mode"
  fi
}

# driver PROGRAM FILTER: runs a GoogleTest program of this folder and reports each of its cases.
driver() {
  local program=$1 filter=$2 log status=0
  log=$work/$(basename "$program" .exe).log
  on "$arch" timeout -k 10 240 "$WINE" "$program" "--gtest_filter=$filter" >"$log" 2>&1 </dev/null || status=$?
  tr -d '\r' <"$log" | sed -n \
    -e "s/^\[       OK \] \([^ ]*\) .*/PASS: \1 ($mode)/p" \
    -e "s/^\[  FAILED  \] \([^ ,]*\).* (.*ms)\$/FAIL: \1 ($mode)/p"
  if ! grep -q '^\[==========\].* ran\.' "$log"; then
    printf 'FAIL: %s %s ended early, with status %d (%s)\n' "$(basename "$program")" "$filter" "$status" "$mode"
  fi
  ((status == 0)) || grep -v '^\[ *\(OK\|RUN\|-*\) *\]' "$log" || true
}

# public_key_of TOKEN LABEL FILE: the public key of a token's key pair as PEM, read on the Linux side.
public_key_of() {
  pkcs11-tool --module "$softhsm" --token-label "$1" --read-object --type pubkey --label "$2" --output-file "$3.der" &&
    openssl pkey -pubin -inform DER -in "$3.der" -out "$3"
}
