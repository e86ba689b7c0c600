// Looking accounts up by address, among 100,000 of them, and with --million among 1,000,000 as well.
//
//   Warm   one process that looks up random addresses: what a serving router pays for each. Aim: below 5 us.
//   Cold   opening both files and the first look-up: what a process that handles one message pays. Aim: below 200 us.
//   Absent an address that nobody has: the rest of the mail of a server that forwards.
//   Get    reading one attribute of a random account.
//
// The accounts are made before the clock starts, in a temporary directory that is removed at the end.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/accountstore.h"
#include "brenthaven/accounts/accountdb.h"

namespace {

constexpr unsigned kSeed = 20030304;

SBenchAccounts *scratch = nullptr;

// Draws the numbers of accounts in the same order in every run.
class SDraw {
public:
  explicit SDraw(int accounts) : _pick(0, accounts - 1) {}
  int operator()() { return _pick(_random); }

private:
  std::mt19937 _random{kSeed};
  std::uniform_int_distribution<int> _pick;
};

// Looks up what `query` makes of a random account's number; `found` says what must come of it.
template <class Query>
void LookUp(benchmark::State &state, bool found, Query query) {
  int const accounts = static_cast<int>(state.range(0));
  scratch->Use(accounts);
  SDraw draw(accounts);
  for (auto _ : state)
    if ((query(draw()).Length() > 0) != found) return state.SkipWithError("wrong answer");
}

void Warm(benchmark::State &state) {
  LookUp(state, true, [](int number) { return SAccountDB().GetAccountUID("SMTP", BenchAddress(number)); });
}

void Absent(benchmark::State &state) {
  LookUp(state, false, [](int number) { return SAccountDB().GetAccountUID("SMTP", "x" + BenchAddress(number)); });
}

void Get(benchmark::State &state) {
  LookUp(state, true, [](int number) {
    SAccount account;
    SAccountDB().GetAccountInfo(BenchUid(number), &account);
    return account.GetString(kAttrSmtpAddress);
  });
}

void Cold(benchmark::State &state) {
  LookUp(state, true, [](int number) {
    SAccountDB store;
    store.DBReOpen();
    return store.GetAccountUID("SMTP", BenchAddress(number));
  });
}

void Register(int accounts) {
  struct Row {
    char const *name;
    void (*run)(benchmark::State &);
  };
  for (Row const &row : {Row{"Warm", Warm}, Row{"Absent", Absent}, Row{"Get", Get}, Row{"Cold", Cold}})
    benchmark::RegisterBenchmark(row.name, row.run)->Arg(accounts)->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char **argv) {
  bool const million = TakeMillionFlag(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SBenchAccounts accounts(false);
  scratch = &accounts;
  Register(100'000);
  if (million) Register(1'000'000);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
