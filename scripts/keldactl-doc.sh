#!/usr/bin/env bash
# keldactl-doc.sh [--check]: writes the help of keldactl's commands, as the built program itself tells it, into
# docs/keldactl.md; with --check it only says whether that is what stands there. Needs a build of x64. Runs in the Wine
# prefix that WINEPREFIX names, or in one of its own.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

document=$ROOT/docs/keldactl.md
program=$BUILD/x64/bin/keldactl.exe
begin='<!-- From here on keldactl tells about itself: scripts/keldactl-doc.sh writes it. -->'
[[ $# == 0 || $* == --check ]] || die "unknown words: $*; known is --check"
[[ -f $program ]] || die "$program is missing; scripts/build.sh x64 makes it"
if [[ ! ${WINEPREFIX-} ]]; then
  trap leave_nothing EXIT
  start_display
  use_prefix x64 "$BUILD/keldactl-doc/prefix"
fi
export WINEDLLOVERRIDES="ncrypt,winscard=b;mscoree=;mshtml="

keldactl() { wine64 "$program" "$@" 2>/dev/null </dev/null | tr -d '\r'; }
# shellcheck disable=SC2016 # the marks of a block, no command
block() { printf '\n```\n%s\n```\n' "$1"; }

help=$(keldactl help)
mapfile -t commands < <(sed -n 's/^  \([a-z-]*\)  .*/\1/p' <<<"$help")
((${#commands[@]})) || die "keldactl does not tell its commands"
new=$(mktemp)
awk -v mark="$begin" '{ print } $0 == mark { exit }' "$document" >"$new"
{
  printf '\n## All commands\n'
  block "$help"
  for command in "${commands[@]}"; do
    printf '\n### %s\n' "$command"
    block "$(keldactl help "$command")"
  done
} >>"$new"
if [[ ${1-} == --check ]]; then
  diff -u "$document" "$new" && status=0 || status=1
  rm -f "$new"
  ((status == 0)) || die "docs/keldactl.md is not what keldactl tells; scripts/keldactl-doc.sh writes it anew"
else
  cat "$new" >"$document"
  rm -f "$new"
  note "wrote the help of ${#commands[@]} commands into docs/keldactl.md"
fi
