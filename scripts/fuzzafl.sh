#!/usr/bin/env bash
# Runs fuzz targets of build/afl with AFL++, a second engine beside that of fuzz.sh: fuzzafl.sh [SECONDS [TARGET...]]
#
# Each target gets SECONDS (30), two at a time, and begins with the tests' corpus; without a TARGET it is the three whose
# inputs any remote sender makes first. What broke something is in build/afl/out/TARGET/default/crashes and hangs. Ends
# with 1 when something did. Environment: FUZZ_BUILD, the folder in place of build/afl; JOBS, in place of 2.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift $(( $# > 0 ? 1 : 0 ))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fieldfile envelopeaddress headeraddresses)
build=$(realpath "${FUZZ_BUILD:-build/afl}")
# A machine's core pattern and clock are not ours to change; a core that others use too is good enough.
export AFL_I_DONT_CARE_ABOUT_MISSING_CRASHES=1 AFL_SKIP_CPUFREQ=1 AFL_NO_AFFINITY=1 AFL_NO_UI=1
export build seconds

number() { sed -n "s/^$2 *: *//p" "$1"; }

run() { # run TARGET: prints its line; 1 when something broke
  local target=$1 out=$build/out/$1 stats options=()
  rm -rf "$out"
  mkdir -p "$build/out"
  [ ! -f "tests/fuzz/dictionaries/$target" ] || options+=(-x "tests/fuzz/dictionaries/$target")
  afl-fuzz -i "tests/fuzz/corpus/$target" -o "$out" -V "$seconds" "${options[@]}" -- \
    "$build/tests/fuzz/fuzz_$target" >"$build/out/$target.log" 2>&1 || { tail -n 5 "$build/out/$target.log"; return 1; }
  stats=$out/default/fuzzer_stats
  printf '%-16s %10s runs %6s inputs kept %6s edges %3s crashes %3s hangs\n' "$target" "$(number "$stats" execs_done)" \
    "$(number "$stats" corpus_count)" "$(number "$stats" edges_found)" "$(number "$stats" saved_crashes)" \
    "$(number "$stats" saved_hangs)"
  [ "$(number "$stats" saved_crashes)" = 0 ] && [ "$(number "$stats" saved_hangs)" = 0 ]
}
export -f run number
printf '%s\n' "${targets[@]}" | xargs -P "${JOBS:-2}" -I TARGET bash -euo pipefail -c 'run TARGET' || exit 1
