#!/usr/bin/env bash
# screenshots.sh: takes the pictures in docs/images anew, from the demo.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

"$ROOT/scripts/demo.sh"
mkdir -p "$ROOT/docs/images"
convert "$BUILD/demo/pin-dialog.png" -strip "$ROOT/docs/images/pin-dialog.png"
step "Taken: docs/images/pin-dialog.png"
