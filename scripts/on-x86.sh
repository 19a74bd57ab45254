#!/usr/bin/env bash
# on-x86.sh COMMAND...: runs COMMAND where 32-bit Linux programs are, the private i386 root, in the current folder; the build
# of the 32-bit soft token calls it. on-x86.sh --why-not: prints why that token cannot be built here, or nothing.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

# The soft token is built for Debian 12's Wine, whichever one programs are to run under.
unset KELDA_WINE
(($#)) || die "usage: ${0##*/} COMMAND [ARGUMENT...] | --why-not"
if [[ $1 == --why-not ]]; then
  why_no_soft_token x86
else
  on x86 "$@"
fi
