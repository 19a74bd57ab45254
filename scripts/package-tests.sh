#!/usr/bin/env bash
# package-tests.sh [--out DIR] [x64] [x86]: packs the Windows test programs for a real Windows machine, in
# DIR/keldaksp-tests-WIDTH.zip (build/dist): unpack it there and start run.cmd. Needs a whole build (scripts/build.sh).
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

out=$BUILD/dist
if [[ ${1-} == --out ]]; then
  (($# >= 2)) || die "--out lacks its folder"
  out=$(realpath -m "$2")
  shift 2
fi
(($#)) || set -- x64 x86
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$ROOT" log -1 --format=%ct)}
export SOURCE_DATE_EPOCH

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
for arch in "$@"; do
  [[ $arch == x64 || $arch == x86 ]] || die "unknown width $arch; known are: x64 x86"
  folder=$BUILD/$arch
  programs=("$folder"/bin/*_tests.exe)
  [[ -e ${programs[0]} ]] || die "there are no test programs in $folder/bin: scripts/build.sh $arch makes them"
  # The programs look for the provider and the doubles beside themselves, and in folders beside their own.
  mkdir -p "$work/$arch"/{bin,fake/without_list,standins}
  cp "${programs[@]}" "$folder"/bin/*.dll "$work/$arch/bin"
  cp "$folder/fake/keldapkcs11.dll" "$work/$arch/fake"
  cp "$folder/fake/without_list/keldapkcs11.dll" "$work/$arch/fake/without_list"
  cp "$folder"/standins/{ncrypt,winscard}.dll "$work/$arch/standins"
  sed 's/$/\r/' "$ROOT/tests/windows/run.cmd" >"$work/$arch/run.cmd"
  python3 "$ROOT/installer/make_zip.py" "$work/$arch" "keldaksp-tests-$arch" "$out/keldaksp-tests-$arch.zip"
  note "$out/keldaksp-tests-$arch.zip: ${#programs[@]} test programs"
done
