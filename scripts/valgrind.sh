#!/usr/bin/env bash
# Runs tests under valgrind's memory check: valgrind.sh [REGEX]
#
# REGEX picks tests by name, as with ctest -R. Without one it is all of them but those of tests/crash and tests/history,
# which start processes by the thousand; in their place each story of tests/crash is told once. Programs of this tree
# that a test starts are checked too. Needs build/debug, or the build in BUILD. What was found stays in its valgrind/.
# Ends with 1 when there is an error or lost memory.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${BUILD:-build/debug}
logs=$(realpath "$build")/valgrind
rm -rf "$logs" && mkdir -p "$logs" || exit 1

# A program with an allocator of its own (tests/crash/memory.h) gets valgrind's in front of it.
check="valgrind --quiet --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
  --trace-children=yes --trace-children-skip=/usr/*,/bin/*,/sbin/* --soname-synonyms=somalloc=NONE \
  --suppressions=$PWD/scripts/valgrind.supp --log-file=$logs/%p"

{
  if [ $# -gt 0 ]; then
    ctest --test-dir "$build" -N -V -R "$1"
  else
    ctest --test-dir "$build" -N -V -E '^(crash|history)\.'
    echo "0: Test command: $(realpath "$build")/tests/crash/crash --jobs ${JOBS:-$(nproc)} well"
  fi
} | sed -n 's/^[0-9]*: Test command: //p' > "$logs.commands"

# A test may fail by its own account, since everything takes longer: what counts is what valgrind says.
tr '\n' '\0' < "$logs.commands" |
  xargs -0 -P "${JOBS:-$(nproc)}" -I{} sh -c "cd '$logs' && $check {} >/dev/null 2>&1"
find "$logs" -type f \( -empty -o -name '*.core.*' \) -delete # some tests end a process by a signal
checked=$(wc -l < "$logs.commands")
found=$(find "$logs" -type f -name '[0-9]*' | wc -l)
echo "$checked tests under valgrind, $found processes with errors or lost memory"
[ "$checked" -gt 0 ] && [ "$found" -eq 0 ]
