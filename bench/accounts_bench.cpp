// Looking accounts up by address, among 100,000 of them, and with --million among 1,000,000 as well.
//
//   Warm   one process that looks up random addresses: what a serving router pays for each. Aim: below 5 us.
//   Cold   opening both files and the first look-up: what a process that handles one message pays. Aim: below 200 us.
//   Absent an address that nobody has: the rest of the mail of a server that forwards.
//   Get    reading one attribute of a random account.
//
// The accounts are made before the clock starts, in a temporary directory that is removed at the end.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "brenthaven/accounts/accountdb.h"

namespace {

constexpr unsigned kSeed = 20030304;
constexpr int kAccountsEach = 10000;  // in one write section

SString Uid(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "user%07d", number);
  return text;
}

SString AddressOf(int number) { return Uid(number) + "@mail.example.org"; }

// A root of its own; the process reads one store at a time, so each size is a stem of files in it.
class SScratch {
public:
  SScratch() {
    if (mkdtemp(_root.data()) == nullptr) std::abort();
    std::filesystem::create_directory(_root + "/config");
    setenv("Brenthaven", _root.c_str(), 1);
    setenv("SpoolSync", "no", 1);
  }
  ~SScratch() {
    std::error_code ignored;  // what is left lies in the temporary directory
    std::filesystem::remove_all(_root, ignored);
  }
  SScratch(SScratch const &) = delete;
  SScratch &operator=(SScratch const &) = delete;

  void Use(int accounts) {
    SString const stem = SString("Bench") + MakeSString(accounts) + ".";
    SAccountDBMod().ReOpenDB(stem);
    if (!std::filesystem::exists(_root + "/config/" + std::string(stem.View()) + "a")) Fill(accounts);
  }

private:
  static void Fill(int accounts) {
    for (int first = 0; first < accounts; first += kAccountsEach) {
      SAccountDBMod store;
      for (int i = first; i < first + kAccountsEach; ++i) {
        SAccountMod account;
        if (store.ModifyAccount(Uid(i), &account) == 0 || account.Set(kAttrSmtpAddress, AddressOf(i)) == 0)
          std::abort();
      }
    }
  }

  std::string _root = std::filesystem::temp_directory_path() / "brenthaven-bench-XXXXXX";
};

SScratch *scratch = nullptr;

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
  LookUp(state, true, [](int number) { return SAccountDB().GetAccountUID("SMTP", AddressOf(number)); });
}

void Absent(benchmark::State &state) {
  LookUp(state, false, [](int number) { return SAccountDB().GetAccountUID("SMTP", "x" + AddressOf(number)); });
}

void Get(benchmark::State &state) {
  LookUp(state, true, [](int number) {
    SAccount account;
    SAccountDB().GetAccountInfo(Uid(number), &account);
    return account.GetString(kAttrSmtpAddress);
  });
}

void Cold(benchmark::State &state) {
  LookUp(state, true, [](int number) {
    SAccountDB store;
    store.DBReOpen();
    return store.GetAccountUID("SMTP", AddressOf(number));
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
  bool const million = argc > 1 && std::strcmp(argv[1], "--million") == 0;
  if (million) argv[1] = argv[0];
  int rest = argc - (million ? 1 : 0);
  char **const arguments = argv + (million ? 1 : 0);
  benchmark::Initialize(&rest, arguments);
  if (benchmark::ReportUnrecognizedArguments(rest, arguments)) return 1;
  SScratch root;
  scratch = &root;
  Register(100'000);
  if (million) Register(1'000'000);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
