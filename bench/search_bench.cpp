// Searching accounts by keys with wildcards, among 100,000 of them, and with --million among 1,000,000 as well.
//
//   Page    the first 20 users whose address begins with a text that ten, a thousand or all of them begin with. Aim:
//   below
//           2 ms among a million.
//   Behind  a page that begins at the 981st hit.
//   Stream  a key with "*" in front, which has to look at every name. Aim: above 300,000 names a second.
//   Between the same with a "*" in the middle, which takes an expression in place of a search for bytes.
//
// The accounts are made before the clock starts, in a temporary directory that is removed at the end.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/accountstore.h"
#include "brenthaven/lists/accountsearch.h"

namespace {

constexpr unsigned kSeed = 20030304;
constexpr int kUidDigits = 7;

SBenchAccounts *scratch = nullptr;

// One search for each round: users by the key that `makeKey` gives, the hits from first to last, `found` of them.
template <class MakeKey>
void Search(benchmark::State &state, MakeKey makeKey, int first, int last, int found) {
  scratch->Use(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    SAccountSearch search;
    search.SetRange(first, last);
    search.SetKey(makeKey());
    search.KeySearch();
    if (search.GetUIDs().Length() != found) return state.SkipWithError("wrong number of hits");
  }
}

// Prefixes of random accounts that leave so many digits open.
class SPrefixes {
public:
  SPrefixes(int accounts, int open) : _pick(0, accounts - 1), _open(open) {}
  SString operator()() {
    SString const uid = BenchUid(_pick(_random));
    return uid.Segment(0, uid.Length() - _open) + "*";
  }

private:
  std::mt19937 _random{kSeed};
  std::uniform_int_distribution<int> _pick;
  int _open;
};

void Page(benchmark::State &state) {
  int const open = static_cast<int>(state.range(1));
  Search(state, SPrefixes(static_cast<int>(state.range(0)), open), 1, 20, open == 1 ? 10 : 20);
}

void Behind(benchmark::State &state) { Search(state, SPrefixes(static_cast<int>(state.range(0)), 3), 981, 1000, 20); }

void Stream(benchmark::State &state, char const *key) {
  Search(
      state, [key] { return SString(key); }, 1, 20, 1);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Register(int accounts) {
  for (int const open : {1, 3, kUidDigits})
    benchmark::RegisterBenchmark("Page", Page)->Args({accounts, open})->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("Behind", Behind)->Arg(accounts)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("Stream", Stream, "*er0099999*")->Arg(accounts)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Between", Stream, "*s*r0099999@*org")->Arg(accounts)->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char **argv) {
  bool const million = TakeMillionFlag(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SBenchAccounts accounts(true);
  scratch = &accounts;
  Register(100'000);
  if (million) Register(1'000'000);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
