#!/usr/bin/env bash
# check.sh: looks at sources and products without running them. Needs a build of x64 and x86 (scripts/build.sh). Prints
# "PASS: name" or "FAIL: name" for each check, and what was found before it.
# shellcheck source=scripts/lib.sh
# shellcheck disable=SC2317 # the checks are called by name
source "$(dirname "$0")/lib.sh"
cd "$ROOT"
"$ROOT/scripts/prepare.sh" check

failed=0
# check NAME COMMAND...: passes when the command succeeds.
check() {
  local name=$1 output status=0
  shift
  output=$("$@" 2>&1) || status=$?
  if ((status == 0)); then
    echo "PASS: $name"
  else
    printf '%s\n' "$output" | head -n 60
    echo "FAIL: $name"
    failed=1
  fi
}

sources() { git ls-files --cached --others --exclude-standard -- "$@"; }

formatted() { sources '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror; }

shell_scripts() { { sources '*.sh'; echo .ci/run; } | xargs shellcheck -x; }

# commands ARCH FILTER: the compile commands of a build whose source matches, one a line, made fit for Clang.
commands() {
  python3 - "$BUILD/$1/compile_commands.json" "$1" "$2" <<'PYTHON'
import json, re, shlex, subprocess, sys
database, arch, wanted = sys.argv[1:]
triplet = {"x64": "x86_64", "x86": "i686"}[arch] + "-w64-mingw32"
headers = subprocess.run([triplet + "-g++-posix", "-print-file-name=include/c++"], capture_output=True, text=True,
                         check=True).stdout.strip()
dropped = {"-mno-ms-bitfields", "-Wno-restrict"}
seen = set()
for entry in json.load(open(database)):
    if not re.search(wanted, entry["file"]) or not entry["file"].endswith((".cpp", ".c")) or entry["file"] in seen:
        continue
    seen.add(entry["file"])
    words = shlex.split(entry["command"])
    while not words[0].endswith(("g++-posix", "gcc-posix")):  # a compiler cache may stand before the compiler
        words.pop(0)
    cpp = words.pop(0).endswith("g++-posix")
    words = [word for word in words if word not in dropped]
    output = words.index("-o")
    del words[output:output + 2]
    words.remove("-c")
    compiler = ["clang++" if cpp else "clang", "--target=" + triplet, "-fsyntax-only", "-Wno-unknown-warning-option"]
    if cpp:
        compiler += ["-stdlib++-isystem", headers, "-stdlib++-isystem", headers + "/" + triplet,
                     "-stdlib++-isystem", headers + "/backward"]
    print(shlex.join(compiler + words))
PYTHON
}

# shellcheck disable=SC2016 # $0 is the inner shell's
in_parallel() { xargs -P "$(nproc)" -d '\n' -I{} sh -c 'cd "$0" && {}' "$ROOT"; }

# The tests are compiled for x64 only: what the widths differ in is in the other folders. What clang-tidy looks at, it
# compiles for x64 by itself.
clang_compiles() {
  local folders='(src|tools|standins|installer)'
  [[ $1 == x86 ]] || folders='(standins|installer|tests|bench)'
  commands "$1" "^$ROOT/$folders/" | in_parallel
}

# tidy_one COMMAND: clang-tidy over the source that this line of commands() compiles. What was found clean is known by the
# hash of all that it depends on, and not looked at again: most of the time of all checks is spent here.
tidy_one() {
  local command=$1 source=${1##* } dependencies key
  set -euo pipefail
  cd "$BUILD/x64"
  dependencies=$(eval "${command/-fsyntax-only/} -MM")
  key=$({
    printf '%s\n' "$TIDY_TOOLS" "${command//"$ROOT"/}"
    # shellcheck disable=SC2046 # a rule of make: the files are words, and none has a blank in its name
    cat $(tr -d '\\\n' <<<"${dependencies#*:}")
  } | sha256sum)
  key=$TIDY_CLEAN/${key%% *}
  [[ ! -e $key ]] || return 0
  clang-tidy --quiet -p . --extra-arg=--target=x86_64-w64-mingw32 --extra-arg=-Wno-unknown-warning-option \
    --extra-arg=-Wno-error --extra-arg=-Wno-unused-command-line-argument \
    --extra-arg="-stdlib++-isystem$TIDY_HEADERS" --extra-arg="-stdlib++-isystem$TIDY_HEADERS/x86_64-w64-mingw32" \
    "$source"
  touch "$key"
}

tidy() {
  TIDY_HEADERS=$(x86_64-w64-mingw32-g++-posix -print-file-name=include/c++)
  TIDY_TOOLS=$({ cat "$ROOT/.clang-tidy" && dpkg-query -W; } | sha256sum)
  TIDY_CLEAN=$CACHE/clang-tidy
  mkdir -p "$TIDY_CLEAN"
  export ROOT BUILD TIDY_HEADERS TIDY_TOOLS TIDY_CLEAN
  export -f tidy_one
  # shellcheck disable=SC2016 # expanded by the inner shell
  commands x64 "^$ROOT/(src|tools)/" | xargs -P "$(nproc)" -d '\n' -n 1 bash -c 'tidy_one "$1"' -
}

cppcheck_is_content() {
  cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --platform=win64 --inline-suppr \
    --enable=warning,performance,portability -Isrc -D_WIN32 -j "$(nproc)" src tools
}

# Exactly the entry export and the 26 entries, none of them decorated.
exports() {
  local objdump=$1-w64-mingw32-objdump dll=$BUILD/$2/bin/keldaksp.dll
  diff <(sed -n 's/^  \([A-Za-z]*\)$/\1/p' src/provider/keldaksp.def | sort) \
    <("$objdump" -p "$dll" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[ *[0-9]*\] //p' | sort)
}

# Windows' own DLLs and no others.
imports() {
  local objdump=$1-w64-mingw32-objdump dll=$BUILD/$2/bin/keldaksp.dll foreign
  foreign=$("$objdump" -p "$dll" | sed -n 's/^\s*DLL Name: //p' | tr '[:upper:]' '[:lower:]' |
    grep -vxE '(advapi32|bcrypt|crypt32|gdi32|kernel32|msvcrt|user32|winscard)\.dll' || true)
  [[ -z $foreign ]] || { echo "imports from $foreign"; return 1; }
}

# Address space layout randomization (with the whole of a 64-bit address), no execution of data, no section that is both
# writable and executable, no time of linking.
hardened() {
  local objdump=$1-w64-mingw32-objdump file header wanted=(DYNAMIC_BASE NX_COMPAT) flag bad=0
  [[ $2 == x86 ]] || wanted+=(HIGH_ENTROPY_VA)
  for file in "$BUILD/$2"/bin/{keldaksp.dll,keldactl.exe}; do
    header=$(TZ=UTC "$objdump" -p "$file" | sed '/^The Data Directory/q')
    for flag in "${wanted[@]}"; do
      grep -q "^\s*$flag\$" <<<"$header" || { echo "$file: $flag is not set"; bad=1; }
    done
    ! grep -q 'relocations stripped' <<<"$header" || { echo "$file cannot be moved"; bad=1; }
    grep -q '^Time/Date.*Thu Jan  1 00:00:00 1970' <<<"$header" || { echo "$file knows when it was linked"; bad=1; }
    # objdump names the flags of a section in the line below it; a section that may be written lacks READONLY.
    ! "$objdump" -h "$file" | grep CODE | grep -v READONLY || { echo "$file has a writable section of code"; bad=1; }
  done
  return "$bad"
}

# Every function of the DLL's with an array on its stack compares the guard behind it: all its sources are compiled so, the
# objects of each room with arrays refer to what ends the process, and the DLL ends it in Windows' own way.
guarded() {
  local tools=$1-w64-mingw32 folder=$BUILD/$2 object unguarded rooms
  unguarded=$(python3 - "$folder/compile_commands.json" "$ROOT/src/" <<'PYTHON'
import json, sys
for entry in json.load(open(sys.argv[1])):
    # The tests compile some sources of the product once more.
    if entry["file"].startswith(sys.argv[2]) and entry["file"].endswith(".cpp") and " -o src/" in entry["command"] \
            and not entry["file"].endswith("/stack_guard.cpp") and "-fstack-protector-strong" not in entry["command"]:
        print(entry["file"])
PYTHON
  ) || return
  [[ -z $unguarded ]] || { echo "compiled without a guard: $unguarded"; return 1; }
  rooms=$(find "$folder/src" -name '*.obj' | while read -r object; do
    ! "$tools-nm" "$object" | grep ' U _*__stack_chk_fail$' >/dev/null || dirname "$object"
  done | sort -u | wc -l)
  ((rooms >= 10)) || { echo "only $rooms rooms refer to the guard"; return 1; }
  # shellcheck disable=SC2016 # a dollar of the assembler's
  "$tools-objdump" -d "$folder/bin/keldaksp.dll" | grep 'int *\$0x29' >/dev/null || { echo "nothing ends the process"; return 1; }
}

# Of winpthreads, which allocates for each thread and lock and gives nothing back, nothing that the runtime library's
# exceptions would use.
without_winpthreads() {
  local map=$BUILD/$1/keldaksp.map found
  found=$(grep -oE 'lib(win)?pthread\.a\([a-z_]*\.o' "$map" | sort -u | grep -E 'mutex|once|thread\.o|tls' || true)
  [[ -z $found ]] || { echo "linked in: $found"; return 1; }
}

# Neither product knows the folder it was built in, in narrow or in wide characters.
no_build_path() {
  python3 - "$BUILD/$1/bin/keldaksp.dll" "$BUILD/$1/bin/keldactl.exe" -- "$ROOT/" "$BUILD/" <<'PYTHON'
import sys
mark = sys.argv.index("--")
found = [f"{name} holds {path}" for name in sys.argv[1:mark] for path in sys.argv[mark + 1:]
         for code in ("utf-8", "utf-16-le") if path.encode(code) in open(name, "rb").read()]
print("\n".join(found))
sys.exit(bool(found))
PYTHON
}

# The DLL of the same sources, compiled anew in a folder of another name and depth, is the same to the byte.
reproducible() {
  local arch=$1 folder=$BUILD/another/folder/of-$1
  rm -rf "$folder"
  mkdir -p "$folder/sources"
  sources | tar -c -T - | tar -x -C "$folder/sources" &&
    cmake -S "$folder/sources" --preset "$arch" -B "$folder/objects" &&
    cmake --build "$folder/objects" -j "${KELDA_JOBS:-$(nproc)}" --target keldaksp &&
    cmp "$BUILD/$arch/bin/keldaksp.dll" "$folder/objects/bin/keldaksp.dll"
}

# A library that crept in shows here. The DLLs take about 350 KB (x64) and 430 KB (x86), most of it the C++ runtime.
small() {
  local size
  size=$(stat -c %s "$BUILD/$1/bin/keldaksp.dll")
  ((size <= $2)) || { echo "keldaksp.dll has $size bytes"; return 1; }
}

check "sources are formatted" formatted
check "scripts pass shellcheck" shell_scripts
check "rooms include only what they link, and are drawn so" scripts/check-rooms.py "$BUILD/x64"
check "pages agree with what they speak of" scripts/check-docs.py
for arch in x64 x86; do
  triplet=x86_64
  [[ $arch == x64 ]] || triplet=i686
  check "Clang compiles everything ($arch)" clang_compiles "$arch"
  check "keldaksp.dll exports its 27 names ($arch)" exports "$triplet" "$arch"
  check "keldaksp.dll imports only Windows' DLLs ($arch)" imports "$triplet" "$arch"
  check "products are hardened ($arch)" hardened "$triplet" "$arch"
  check "keldaksp.dll guards its stack ($arch)" guarded "$triplet" "$arch"
  check "keldaksp.dll does without winpthreads' threads and locks ($arch)" without_winpthreads "$arch"
  check "products hold no build path ($arch)" no_build_path "$arch"
  check "another folder gives the same keldaksp.dll ($arch)" reproducible "$arch"
done
check "keldaksp.dll stays small (x64)" small x64 400000
check "keldaksp.dll stays small (x86)" small x86 500000
check "clang-tidy finds nothing" tidy
check "cppcheck finds nothing" cppcheck_is_content
exit "$failed"
