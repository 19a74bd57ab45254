#!/usr/bin/env bash
# draw-art.sh: draws the dialogs' logo and icon from their SVG sources. The results are committed, so a build needs none of
# the drawing tools; run this after a change to an SVG.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"
need_packages librsvg2-bin imagemagick
cd "$ROOT/src/ui/res"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== logo.bmp: 80 x 80 on the dialog face colour, 24 bits a pixel"
rsvg-convert -w 80 -h 80 --background-color '#f0f0f0' logo.svg -o "$work/logo.png"
convert "$work/logo.png" -alpha off -strip -type TrueColor "BMP3:logo.bmp"

echo "== kelda.ico: 16, 32 and 48 pixels with transparency"
rsvg-convert -w 16 -h 16 icon-16.svg -o "$work/16.png"
rsvg-convert -w 32 -h 32 icon.svg -o "$work/32.png"
rsvg-convert -w 48 -h 48 icon.svg -o "$work/48.png"
convert "$work/16.png" "$work/32.png" "$work/48.png" -strip kelda.ico
ls -l logo.bmp kelda.ico
