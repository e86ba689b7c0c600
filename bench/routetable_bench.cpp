// bench/routetable_bench.cpp - the routing table: microseconds to find a host's line, milliseconds to take a table in.
// The numbers to beat are 2 s to compile 100,000 exact hosts, 20 us to look one up in the compiled table, and 100 us a
// host for 1,000 lines with wildcards. Rival: the same lines as expressions, tried one after another.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <deque>
#include <filesystem>
#include <random>
#include <string>

#include "brenthaven/router/smtprouter.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kHosts = 100000;
constexpr int kWildcards = 1000;

std::string Number(char const *before, int number, char const *behind) {
  return before + std::to_string(number) + behind;
}
SString Host(int number) { return SString(Number("host", number, ".customer.example")); }

enum Shape { kSuffix, kInside, kExpression };  // "*.x", "a*b*c", "(a|b)*.x"
std::string Pattern(int shape, int number) {
  if (shape == kSuffix) return Number("*.region", number, ".example");
  if (shape == kInside) return Number("mx*.region", number, ".*.example");
  return Number("(mx|relay)*.region", number, ".example");
}
SStringList WildcardLines(int shape) {
  SStringList lines;
  for (int i = 0; i < kWildcards; ++i) lines.Push(SString(Pattern(shape, i) + ":hub.example"));
  return lines;
}

// An instance with both kinds of table.
class Root {
public:
  Root() {
    std::string pattern = std::filesystem::temp_directory_path() / "brenthaven-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    _path = pattern;
    std::filesystem::create_directory(_path + "/config");
    setenv("Brenthaven", _path.c_str(), 1);
    setenv("SpoolSync", "no", 1);
    for (char const *module : {"SMTP-Router", "Mailbox-Deliver"})
      for (char const *section : {"/Config", "/Error-Actions", "/Messages"})
        Sdbfile(module, 1, kProductWord).Open(section, 1);
    SStringList lines;
    for (int i = 0; i < kHosts; ++i) lines.Push(Host(i) + ":hub.example");
    SetLines(lines);
  }
  ~Root() { std::filesystem::remove_all(_path); }
  void SetLines(SStringList const &lines) const {
    Sdbfile settings("SMTP-Router", 1, kProductWord);
    settings.Open("/", 1);
    settings.Set("RoutingTable", lines);
  }
  void UseCompiled(bool compiled) const {
    compiled ? setenv("FastMRT", (_path + "/config/routes").c_str(), 1) : unsetenv("FastMRT");
  }
  static bool Compile() {
    char const *verify[] = {"SMTP-Router", "VerifyEnvironment", nullptr};
    return SSMTPRouterModule().Main(verify) == kModuleDone;
  }

private:
  std::string _path;
};
Root &TheRoot() {
  static Root root;
  return root;
}

void BM_CompileExactHosts(benchmark::State &state) {
  TheRoot().UseCompiled(true);
  for (auto _ : state)
    if (!Root::Compile()) return state.SkipWithError("not compiled");
}
BENCHMARK(BM_CompileExactHosts)->Unit(benchmark::kMillisecond);

void BM_CompiledLookup(benchmark::State &state) {
  TheRoot().UseCompiled(true);
  if (!Root::Compile()) return state.SkipWithError("not compiled");
  SSMTPRouterModule router;
  (void)router.LoadEnv();
  std::mt19937 random(1);
  for (auto _ : state)
    if (router.RewriteSMTPAddrs(Host(static_cast<int>(random() % kHosts))) != "hub.example")
      return state.SkipWithError("not found");
}
BENCHMARK(BM_CompiledLookup)->Unit(benchmark::kMicrosecond);

void BM_CompiledFirstLookup(benchmark::State &state) {  // what one message of a serving process pays
  TheRoot().UseCompiled(true);
  if (!Root::Compile()) return state.SkipWithError("not compiled");
  for (auto _ : state) {
    SSMTPRouterModule router;
    (void)router.LoadEnv();
    benchmark::DoNotOptimize(router.RewriteSMTPAddrs(Host(4711)));
  }
}
BENCHMARK(BM_CompiledFirstLookup)->Unit(benchmark::kMicrosecond);

void BM_WildcardLookup(benchmark::State &state) {  // a host that no line takes: the worst
  SRouteTable const table(WildcardLines(static_cast<int>(state.range(0))));
  SString const host = "mx1.region500.north.somewhere.example.net";
  for (auto _ : state) benchmark::DoNotOptimize(table.Find(host));
}
BENCHMARK(BM_WildcardLookup)->Arg(kSuffix)->Arg(kInside)->Arg(kExpression)->Unit(benchmark::kMicrosecond);

void BM_WildcardLookupByExpressions(benchmark::State &state) {
  std::deque<SPerlRegex> lines;
  for (int i = 0; i < kWildcards; ++i) {
    SString expression("^");
    for (char const c : Pattern(static_cast<int>(state.range(0)), i))
      expression += c == '.' ? SString("\\.") : c == '*' ? SString(".*") : SString(std::string_view(&c, 1));
    lines.emplace_back(expression + "$", "i");
  }
  SString const host = "mx1.region500.north.somewhere.example.net";
  for (auto _ : state)
    for (SPerlRegex const &line : lines) benchmark::DoNotOptimize(line.HasMatch(host));
}
BENCHMARK(BM_WildcardLookupByExpressions)->Arg(kSuffix)->Arg(kInside)->Arg(kExpression)->Unit(benchmark::kMicrosecond);

void BM_LoadOfWildcards(benchmark::State &state) {  // with each message of a serving process; compiled once
  TheRoot().UseCompiled(false);
  TheRoot().SetLines(WildcardLines(kSuffix));
  for (auto _ : state) {
    SSMTPRouterModule router;
    benchmark::DoNotOptimize(router.LoadEnv());
  }
}
BENCHMARK(BM_LoadOfWildcards)->Unit(benchmark::kMicrosecond);

}  // namespace
