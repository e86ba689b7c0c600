// bench/store_bench.cpp - time of one operation on the stores, in steady state unless the name says "Cold". Rival: none
// inside this program; the numbers to beat are 5 us for a lookup among 1,000,000 accounts and 200 us for a cold one.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <random>
#include <string>

#include "brenthaven/store/sbtree.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/store/sobjectdb.h"

namespace {

constexpr int kAddress = 1;
constexpr _Attribute kTable[] = {
    {"Type", kAttributeIndexed},
    {"Address", kAttributeLowerCase | kAttributeAddress | kAttributeUnique},
    {nullptr, 0},
};

SString Address(int account) {
  char text[64];
  snprintf(text, sizeof text, "<user%07d@example.org>", account);
  return text;
}

SString Uid(int account) { return SString("uid") + SString(account); }

// A root of its own, with the stores that the benchmarks ask for made once each.
class Root {
public:
  Root() {
    std::string pattern = std::filesystem::temp_directory_path() / "brenthaven-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    _path = pattern;
    std::filesystem::create_directory(_path + "/config");
    setenv("Brenthaven", _path.c_str(), 1);
    setenv("SpoolSync", "no", 1);
    Sdbfile settings("SMTP-Router", 1, kProductWord);
    settings.Open("/Config", 1);
    for (int i = 0; i < 40; ++i) settings.Set(SString("Setting") + SString(i), {"value", SString(i)});
  }
  ~Root() { std::filesystem::remove_all(_path); }

  // Name of an object store with that many accounts. Entries go in by their key order, which is that of a bulk load.
  SString Accounts(int count) {
    SString const name = SString("Bench") + SString(count) + ".";
    if (std::filesystem::exists(_path + "/config/" + static_cast<char const *>(name) + "a")) return name;
    SObjectDB store(name, 0, kTable);
    store.LockWrite();
    for (int i = 0; i < count; ++i) {
      store.Create(Uid(i), 1);
      store.SetAttrib(kAddress, Uid(i), Address(i), 0);
    }
    store.UnlockWrite();
    return name;
  }

private:
  std::string _path;
};

Root &TheRoot() {
  static Root root;
  return root;
}

void BM_AddressLookup(benchmark::State &state) {
  int const count = static_cast<int>(state.range(0));
  SObjectDB store(TheRoot().Accounts(count), 0, kTable);
  std::mt19937 random(1);
  for (auto _ : state) {
    SStringList const names = store.ListByAttrib(kAddress, Address(static_cast<int>(random() % count)));
    if (names.Length() != 1) return state.SkipWithError("not found");
  }
}
BENCHMARK(BM_AddressLookup)->Arg(100000)->Arg(1000000);

void BM_AttributeLookup(benchmark::State &state) {
  int const count = static_cast<int>(state.range(0));
  SObjectDB store(TheRoot().Accounts(count), 0, kTable);
  std::mt19937 random(1);
  for (auto _ : state)
    if (store.GetType(Uid(static_cast<int>(random() % count))) != 1) return state.SkipWithError("not found");
}
BENCHMARK(BM_AttributeLookup)->Arg(100000)->Arg(1000000);

void BM_RepeatedLookup(benchmark::State &state) {  // the pages are in memory: lock, check, lookup, unlock
  SObjectDB store(TheRoot().Accounts(1000000), 0, kTable);
  for (auto _ : state) benchmark::DoNotOptimize(store.GetType(Uid(77777)));
}
BENCHMARK(BM_RepeatedLookup);

void BM_ColdOpenAndLookup(benchmark::State &state) {
  SString const name = TheRoot().Accounts(1000000);
  for (auto _ : state) {
    SObjectDB store(name, 0, kTable);
    benchmark::DoNotOptimize(store.ListByAttrib(kAddress, Address(77777)));
  }
}
BENCHMARK(BM_ColdOpenAndLookup);

void BM_TreeScan100000(benchmark::State &state) {
  SBTree tree(TheRoot().Accounts(100000) + "i", 0);
  for (auto _ : state) {
    SString key;
    int count = 0;
    for (tree.SeqFirstJJ(key); tree.GetMoveStatus() == 0; tree.SeqNext(key)) ++count;
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(BM_TreeScan100000)->Unit(benchmark::kMillisecond);

void BM_TreeSet(benchmark::State &state) {  // within one section of 1000 random replacements, its end included
  SBTree tree(TheRoot().Accounts(100000) + "a", 0);
  std::mt19937 random(1);
  for (auto _ : state) {
    tree.LockWrite();
    for (int i = 0; i < 1000; ++i)
      tree.Set(Uid(static_cast<int>(random() % 100000)) + '\0' + SString('\0', 1), SString("\0\1", 2));
    tree.UnlockWrite();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_TreeSet)->Unit(benchmark::kMillisecond);

// One write section that changes one object among 10,000, flushed; and 100,000 new objects in one. Arg 1: journaled.
void BM_ChangeSynced(benchmark::State &state) {
  SObjectDB store(TheRoot().Accounts(10000), 0, kTable);
  store.SetJournaled(state.range(0) != 0);
  setenv("SpoolSync", "fsync", 1);
  int account = 0;
  for (auto _ : state) {
    store.LockWrite();
    ++account;
    store.SetAttrib(kAddress, Uid(account % 10000), Address(20000 + account), 0);
    store.UnlockWrite();
  }
  setenv("SpoolSync", "no", 1);
}
BENCHMARK(BM_ChangeSynced)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_BulkLoadSynced(benchmark::State &state) {
  setenv("SpoolSync", "fsync", 1);
  int round = 0;
  for (auto _ : state) {
    SObjectDB store(SString("Bulk") + SString(static_cast<int>(state.range(0))) + SString(round++) + ".", 0, kTable);
    store.SetJournaled(state.range(0) != 0);
    store.LockWrite();
    for (int i = 0; i < 100000; ++i) {
      store.Create(Uid(i), 1);
      store.SetAttrib(kAddress, Uid(i), Address(i * 7919 % 100000), 0);
    }
    store.UnlockWrite();
  }
  setenv("SpoolSync", "no", 1);
}
BENCHMARK(BM_BulkLoadSynced)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SectionOpen(benchmark::State &state) {  // what a message in a long-running process pays for each section
  TheRoot();
  for (auto _ : state) {
    Sdbfile settings("SMTP-Router", 0, kProductWord);
    benchmark::DoNotOptimize(settings.Open("/Config", 0));
  }
}
BENCHMARK(BM_SectionOpen);

void BM_SettingGet(benchmark::State &state) {
  TheRoot();
  Sdbfile settings("SMTP-Router", 0, kProductWord);
  settings.Open("/Config", 0);
  for (auto _ : state) benchmark::DoNotOptimize(settings.Get("Setting20"));
}
BENCHMARK(BM_SettingGet);

void BM_SectionOpenAfterAChange(benchmark::State &state) {  // another commit has emptied what was kept
  TheRoot();
  Sdbfile writer("SMTP-Router", 1, kProductWord);
  for (auto _ : state) {
    state.PauseTiming();
    writer.Set("changed", {"x"});
    state.ResumeTiming();
    Sdbfile settings("SMTP-Router", 0, kProductWord);
    settings.Open("/Config", 0);
    benchmark::DoNotOptimize(settings.Get("Setting20"));
  }
}
BENCHMARK(BM_SectionOpenAfterAChange);

}  // namespace
