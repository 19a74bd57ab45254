#!/usr/bin/env bash
# bench.sh [FILTER]: measures what the provider costs beyond the work that it has to do; with FILTER only what has it in
# its name ("SignHash", "list", "layer"). Needs a few minutes and an idle machine. Leaves in build/bench:
#   results.json   every measurement
#   table.md       the same to read
#   entries.png    cost by entry
#   keys.png       cost by number of keys
# docs/performance.md tells how to read them. Nothing passes or fails here.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"

case ${1-} in
  -h | --help)
    sed -n '2,/^# shellcheck/{/^# shellcheck/d;s/^# \{0,1\}//p}' "$0"
    exit 0
    ;;
  -*) die "unknown option $1" ;;
esac
filter=${1-}
trap leave_nothing EXIT
trap 'exit 130' INT TERM

"$ROOT/scripts/prepare.sh" build run bench
"$ROOT/scripts/build.sh" --without-tests x64
cmake --build "$BUILD/x64" -j "${KELDA_JOBS:-$(nproc)}" --target bench || die "the benchmark could not be built"

# All on one processor: every question to Wine's server is two changes of process, and between two processors, of which each
# has to be woken, such a change takes several times as long and never twice the same.
taskset -pc "$(taskset -pc $$ | sed 's/.*: //; s/[,-].*//')" $$ >/dev/null

out=$BUILD/bench
lines=$out/results.jsonl
mkdir -p "$out"
rm -f "$lines"
start_display

step "Provider against its demanded calls, on a token double"
use_prefix x64 "$out/prefix"
(cd "$BUILD/x64/bin" && "$WINE" bench.exe --out "$(windows_path "$lines")" "$filter") </dev/null ||
  die "the benchmark stopped early"

if [[ layer == *"$filter"* ]]; then
  step "A signature through router and soft token, layer by layer"
  environment=$("$ROOT/scripts/soft-token.sh" "$out/token" --key Key1:2048 2>"$out/soft-token.log") ||
    die "the soft token could not be made; $out/soft-token.log tells why"
  eval "$environment"
  assemble_app x64 "$out/app"
  cp "$BUILD/x64/bin/bench.exe" "$out/app"
  use_prefix x64 "$out/prefix-end-to-end"
  "$ROOT/scripts/register.sh" x64 "$WINEPREFIX" "$out/app/keldaksp.dll"
  (cd "$out/app" && "$WINE" bench.exe --out "$(windows_path "$lines")" --end-to-end) </dev/null ||
    die "the benchmark stopped early"
fi

[[ -s $lines ]] || die "nothing is called $filter"
step "Results"
python3 "$ROOT/scripts/bench.py" "$lines" "$out"
for plot in entries keys; do
  [[ ! -s $out/$plot.dat ]] || (cd "$out" && gnuplot "$ROOT/bench/$plot.gnuplot") || die "no plot of $plot"
done
printf '\n'
cat "$out/table.md"
note "all of it: $out"
