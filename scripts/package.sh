#!/usr/bin/env bash
# package.sh [--out DIR] [--version VERSION] [--sign-with FILE.p12 | --sign-with pkcs11:URI --certificate FILE.pem]
#            [--password-file FILE] [--module FILE.so] [--timestamp URL] [x64] [x86]
#
# Makes the packages of what scripts/build.sh has built (without names: x64, which has the 32-bit DLL too, and x86) in DIR
# (build/dist): for each keldaksp-VERSION-WIDTH.msi and .zip, and for all SHA256SUMS and a bill of materials (SPDX). Two
# runs on one commit give the same bytes, unless they are signed. --version is for trying out upgrades.
#
# With --sign-with, DLLs, both keldactl.exe and the .msi are signed by osslsigncode: with a PKCS#12 file, or with a key on a token
# (URI, RFC 7512, without its PIN) of the PKCS#11 library --module and its certificate. The password or PIN is the first
# line of --password-file. --timestamp asks that RFC 3161 server to confirm the time.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

out=$BUILD/dist
version=
sign_with=
declare -A given=()
while (($#)) && [[ $1 == --* ]]; do
  (($# >= 2)) || die "$1 lacks its value"
  case $1 in
    --out) out=$(realpath -m "$2") ;;
    --version) version=$2 ;;
    --sign-with) sign_with=$2 ;;
    --certificate | --password-file | --module) given[$1]=$(realpath "$2") ;;
    --timestamp) given[$1]=$2 ;;
    *) die "unknown option $1" ;;
  esac
  shift 2
done
(($#)) || set -- x64 x86
"$ROOT/scripts/prepare.sh" package

built=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/x86/CMakeCache.txt")
[[ $built ]] || die "scripts/build.sh x86 has not run"
version=${version:-$built}
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$ ]] || die "a version has four numbers, not $version"
# The files' times are that of the commit; outside of a repository somebody has to say it.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$ROOT" log -1 --format=%ct)}
export SOURCE_DATE_EPOCH

# sign FILE...: in their places.
sign() {
  local file words=()
  if [[ $sign_with == pkcs11:* ]]; then
    [[ ${given[--certificate]-} ]] || die "a key on a token needs --certificate"
    words=(-key "$sign_with" -certs "${given[--certificate]}")
    [[ ! ${given[--module]-} ]] || words+=(-pkcs11module "${given[--module]}")
  else
    words=(-pkcs12 "$sign_with")
  fi
  [[ ! ${given[--password-file]-} ]] || words+=(-readpass "${given[--password-file]}")
  [[ ! ${given[--timestamp]-} ]] || words+=(-ts "${given[--timestamp]}")
  for file in "$@"; do
    osslsigncode sign "${words[@]}" -h sha256 -n "Norvale Token Works KSP" -in "$file" -out "$file.signed" \
      >"$work/sign.log" 2>&1 || {
      cat "$work/sign.log" >&2
      die "$file could not be signed"
    }
    mv "$file.signed" "$file"
  done
}

# lay_down ARCH DIR: what is installed.
lay_down() {
  local arch=$1 dir=$2 component
  for component in product client documents; do
    cmake --install "$BUILD/$arch" --component "$component" --prefix "$dir" >/dev/null ||
      die "what scripts/build.sh $arch makes is missing"
  done
  # 32-bit programs' side of a 64-bit system can be looked at only by a client of their width.
  for component in product client; do
    [[ $arch == x86 ]] || cmake --install "$BUILD/x86" --component "$component" --prefix "$dir/x86" >/dev/null ||
      die "what scripts/build.sh x86 makes is missing"
  done
  chmod -R u=rwX,go=rX "$dir"
  [[ ! $sign_with ]] || find "$dir" \( -name '*.dll' -o -name '*.exe' \) -print0 | sort -z | while IFS= read -r -d '' file; do
    sign "$file"
  done
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
names=()
for arch in "$@"; do
  [[ $arch == x64 || $arch == x86 ]] || die "unknown width $arch; known are: x64 x86"
  name=keldaksp-$version-$arch
  step "Packing $name"
  lay_down "$arch" "$work/$arch"
  cmake --install "$BUILD/$arch" --component installer --prefix "$work/installer-$arch" >/dev/null ||
    die "what scripts/build.sh $arch makes is missing"
  actions=$work/installer-$arch/installer_actions.dll
  [[ ! $sign_with ]] || sign "$actions"
  python3 "$ROOT/installer/make_msi.py" "$arch" "$version" "$built" "$work/$arch" "$actions" \
    "$ROOT/src/ui/res/kelda.ico" "$out/$name.msi"
  [[ ! $sign_with ]] || sign "$out/$name.msi"
  python3 "$ROOT/installer/make_zip.py" "$work/$arch" "keldaksp-$version" "$out/$name.zip"
  names+=("$name.msi" "$name.zip")
done

python3 "$ROOT/installer/make_sbom.py" "$version" "$(git -C "$ROOT" rev-parse HEAD 2>/dev/null || echo unknown)" \
  "$work" "$out/keldaksp-$version.spdx.json" "$@"
names+=("keldaksp-$version.spdx.json")
(cd "$out" && sha256sum "${names[@]}" >SHA256SUMS)
step "Packages in $out"
[[ $sign_with ]] || note "They are not signed (--sign-with): Windows will say that their maker is unknown."
(cd "$out" && ls -l "${names[@]}" SHA256SUMS)
