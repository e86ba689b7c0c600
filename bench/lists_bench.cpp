// Mailing lists at the size of a large site.
//
//   Bulk       10,000 strangers subscribed in batches of 500, syncing on. Aim: below 30 s.
//   Single     one stranger subscribed by one request, syncing on: what a mail to the list manager costs.
//   State      a state file of 100,000 posters read, counted in and committed. Linear in the posters.
//   Count      the subscribers of a list of 100,000 counted, and listed. Linear; the process stays below 256 MiB.
//
// What a measurement needs is made before its clock starts, in a temporary directory that is removed at the end.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/store/sdbfile.h"

namespace {

constexpr int kBulk = 10000;
constexpr int kBatch = 500;
constexpr int kLarge = 100000;
constexpr unsigned int kOnBehalfOfAnOwner = 1;

// A root with the list "news"; what it holds grows from one benchmark to the next.
class SScratch {
public:
  SScratch() {
    if (mkdtemp(_root.data()) == nullptr) std::abort();
    for (char const *name : {"config", "control", "messages", "listdata"})
      std::filesystem::create_directory(_root + "/" + name);
    setenv("Brenthaven", _root.c_str(), 1);
    Sdbfile settings("MTA-Accounts", 1, kProductWord);
    SAccountDBMod store;
    SAccountMod list;
    if (!settings.Open("/", 1) || !settings.Set("LocalMailDomains", SStringList("example.org")) ||
        !store.ModifyAccount("news", &list) || !list.Set("List-Name", SStringList("news")))
      std::abort();
  }
  ~SScratch() {
    std::error_code ignored;  // what is left lies in the temporary directory
    std::filesystem::remove_all(_root, ignored);
  }
  SScratch(SScratch const &) = delete;
  SScratch &operator=(SScratch const &) = delete;

  S821Address NextAddress() { return S821Address("<user" + SString(_next++) + "@far.example>"); }

private:
  std::string _root = std::filesystem::temp_directory_path() / "brenthaven-bench-XXXXXX";
  int _next = 0;
};

SScratch &Scratch() {
  static SScratch scratch;
  return scratch;
}

// False when an address was refused or a state could not be written.
bool SubscribeInBatches(int count) {
  bool good = true;
  for (int first = 0; first < count; first += kBatch) {
    SListBatch batch("news");
    for (int i = 0; i < kBatch; ++i) {
      SListActions actions(nullptr, "news", Scratch().NextAddress());
      actions.SetBatch(&batch);
      good = actions.Subscribe(kOnBehalfOfAnOwner) == kListSuccess && good;
    }
    good = batch.Commit() && good;
  }
  return good;
}

void BM_Single(benchmark::State &state) {
  setenv("SpoolSync", "auto", 1);
  for (auto _ : state)
    if (SListActions(nullptr, "news", Scratch().NextAddress()).Subscribe(kOnBehalfOfAnOwner) != kListSuccess)
      return state.SkipWithError("a request failed");
}
BENCHMARK(BM_Single)->Iterations(200)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_Bulk(benchmark::State &state) {
  setenv("SpoolSync", "auto", 1);
  for (auto _ : state)
    if (!SubscribeInBatches(kBulk)) return state.SkipWithError("a request failed");
}
BENCHMARK(BM_Bulk)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void BM_State(benchmark::State &bench) {
  setenv("SpoolSync", "no", 1);
  int const users = static_cast<int>(bench.range(0));
  SListState state("posters" + SString(users));
  if (!state.Read()) return bench.SkipWithError("no state");
  for (int i = 0; i < users; ++i) (void)state.GetUserNum("user" + SString(i) + "@far.example");
  if (!state.Commit()) return bench.SkipWithError("not committed");
  for (auto _ : bench) {
    if (!state.Read()) return bench.SkipWithError("no state");
    benchmark::DoNotOptimize(state.IncrUserTotalMessages(state.GetUserNum("user0@far.example")));
    if (!state.Commit()) return bench.SkipWithError("not committed");
  }
}
BENCHMARK(BM_State)->Arg(kLarge / 10)->Arg(kLarge)->Unit(benchmark::kMillisecond);

void BM_Count(benchmark::State &state) {
  setenv("SpoolSync", "no", 1);
  SList list;
  if (!SListDB().GetByUID("news", &list, 0)) return state.SkipWithError("no list");
  int const missing = kLarge - list.GetSubscriberCount();
  if (missing > 0 && !SubscribeInBatches(missing)) return state.SkipWithError("a request failed");
  for (auto _ : state) benchmark::DoNotOptimize(list.GetSubscriberCount());
  int listed = 0;
  for (SString const &uid : list.GetSubscribers()) listed += uid.Length() > 0;
  struct rusage usage;
  (void)getrusage(RUSAGE_SELF, &usage);  // fails for bad arguments alone
  state.counters["subscribers"] = listed;
  state.counters["MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}
BENCHMARK(BM_Count)->Unit(benchmark::kMillisecond);

}  // namespace
