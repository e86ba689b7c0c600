#!/usr/bin/env bash
# Runs the fuzz targets of build/fuzz: fuzz.sh [--adopt] [SECONDS [TARGET...]]
#
# Each target gets SECONDS (30), two at a time. What it finds out grows build/fuzz/corpus/TARGET, merged and minimised at
# the end of the run, where the next run goes on; inputs that broke something are kept in build/fuzz/findings. --adopt
# adds to tests/fuzz/corpus, which the tests replay, the small inputs that reach code that no input there reaches.
# Ends with 1 when something broke. Environment: FUZZ_BUILD, the folder in place of build/fuzz; JOBS, in place of 2.
set -euo pipefail
cd "$(dirname "$0")/.."

adopt=
if [ "${1:-}" = --adopt ]; then adopt=1; shift; fi
seconds=${1:-30}
shift $(( $# > 0 ? 1 : 0 ))
build=$(realpath "${FUZZ_BUILD:-build/fuzz}")
programs=$build/tests/fuzz
limit=40     # inputs of a target in the tree
largest=2048 # bytes of one that is adopted
findings=$build/findings
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for program in "$programs"/fuzz_*; do targets+=("${program##*/fuzz_}"); done
fi

number() { sed -n "s/^stat::$2: *//p" "$1" | tail -n 1; }

merge() { # merge TARGET INTO FROM...: the smallest set of inputs that reaches as much
  local target=$1
  shift
  "$programs/fuzz_$target" -set_cover_merge=1 -rss_limit_mb=2048 "$@" >/dev/null 2>&1
}

adopt_inputs() { # adopt_inputs TARGET CORPUS
  local target=$1 tree=tests/fuzz/corpus/$1 file count
  mkdir "$TMPDIR/small" "$TMPDIR/chosen"
  find "$2" -type f -size -$((largest + 1))c -exec cp -t "$TMPDIR/small" {} +
  cp "$tree"/* "$TMPDIR/chosen"
  merge "$target" "$TMPDIR/chosen" "$TMPDIR/small" || return 0
  for file in "$TMPDIR"/chosen/*; do
    count=$(find "$tree" -type f | wc -l)
    if [ "$count" -ge $limit ]; then break; fi
    cmp -s "$file" "$tree/${file##*/}" || cp "$file" "$tree/reached-$(basename "$file" | cut -c 1-8)"
  done
}

run() { # run TARGET: prints its line; 1 when something broke
  local target=$1 corpus=$build/corpus/$1 log status=0 broken edges
  TMPDIR=$(mktemp -d /dev/shm/fuzz-XXXXXX)
  export TMPDIR
  trap 'rm -rf "$TMPDIR"' EXIT
  log=$build/$target.log
  mkdir -p "$corpus" "$findings"
  local known
  known=$(find "$findings" -name "$target-*" | wc -l)
  local options=(-max_total_time="$seconds" -print_final_stats=1 -timeout=20 -rss_limit_mb=2048 -malloc_limit_mb=1200
                 -artifact_prefix="$findings/$target-")
  [ ! -f "tests/fuzz/dictionaries/$target" ] || options+=("-dict=tests/fuzz/dictionaries/$target")
  "$programs/fuzz_$target" "${options[@]}" "$corpus" "tests/fuzz/corpus/$target" >"$log" 2>&1 || status=1
  broken=$(( $(find "$findings" -name "$target-*" | wc -l) - known ))
  edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
  mkdir "$TMPDIR/merged"
  if merge "$target" "$TMPDIR/merged" "$corpus" "tests/fuzz/corpus/$target"; then
    rm -rf "$corpus"
    mv "$TMPDIR/merged" "$corpus"
  fi
  [ -z "$adopt" ] || adopt_inputs "$target" "$corpus"
  printf '%-16s %10s runs %6s new inputs %6s edges %3s findings\n' "$target" "$(number "$log" number_of_executed_units)" \
    "$(number "$log" new_units_added)" "${edges:-0}" "$broken"
  if [ $status -ne 0 ]; then grep -m 1 -A 1 -E '^FOUND:|^SUMMARY:|ERROR:' "$log" || true; fi
  return $status
}
export -f run merge adopt_inputs number
export programs build findings seconds adopt limit largest
printf '%s\n' "${targets[@]}" | xargs -P "${JOBS:-2}" -I TARGET bash -euo pipefail -c 'run TARGET' || exit 1
