#!/usr/bin/env bash
# The long form of the tests that show that nothing is lost: soak.sh [MINUTES]
#
# MINUTES (30) is the time that the stress run gets, and half of it is shared by the fuzz targets. The rest takes as
# long as it takes, some hours on two cores: every call of every story killed and failing, each size of a disk, all
# power-cut states, every flush left out, every allocation refused, a million reads of the histories, 100,000 cases a
# property. Each part's last line says what was reached. Needs build/debug (make crash) and build/fuzz (make fuzz). Ends
# with 1 when something was found.
set -uo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
tests=build/debug/tests
status=0
part() { # part COMMAND...: says what it is, how it ended and what it took
  echo "== $*"
  local begin=$SECONDS
  "$@" || status=1
  echo "== $((SECONDS - begin)) s"
}

part "$tests/crash/crash" --long kill
part "$tests/crash/crash" --long power
part "$tests/crash/crash" --long fail
part "$tests/crash/crash" --long full
part "$tests/crash/crash" --long memory
part "$tests/crash/crash" --long flush
part "$tests/crash/stress" --seconds $((minutes * 60)) --seed "$RANDOM"
part env BRENTHAVEN_HISTORY_READS=1000000 "$tests/history/test_history"
part env BRENTHAVEN_PROPERTY_CASES=100000 "$tests/property/test_property"
part scripts/fuzz.sh $((minutes * 60 / 15))
exit $status
