#!/usr/bin/env bash
# screenshots.sh: takes the pictures in docs/images anew, from the demo.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

"$ROOT/scripts/demo.sh" --readers 2
mkdir -p "$ROOT/docs/images"
for picture in pin-dialog reader-dialog; do
  convert "$BUILD/demo/$picture.png" -strip "$ROOT/docs/images/$picture.png"
  step "Taken: docs/images/$picture.png"
done
