// Strings, lists, tables and field files: nanoseconds an operation, bytes a second where there are many. The rivals are
// the containers of the standard library.
#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char kAddress[] = "someone.with.a.longer.name@mail.example.org";

void StringCopy(benchmark::State &state) {
  SString const text(kAddress);
  for (auto _ : state) benchmark::DoNotOptimize(SString(text));
}
void StdStringCopy(benchmark::State &state) {
  std::string const text(kAddress);
  for (auto _ : state) benchmark::DoNotOptimize(std::string(text));
}
BENCHMARK(StringCopy);
BENCHMARK(StdStringCopy);

void StringMake(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(SString(kAddress));
}
void StdStringMake(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::string(kAddress));
}
BENCHMARK(StringMake);
BENCHMARK(StdStringMake);

template <typename Text>
void AppendBytes(benchmark::State &state) {
  for (auto _ : state) {
    Text text;
    for (int i = 0; i < 4096; ++i) text += 'x';
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * 4096);
}
BENCHMARK(AppendBytes<SString>);
BENCHMARK(AppendBytes<std::string>);

void IndexOfText(benchmark::State &state) {
  SString text('x', 1 << 20);
  text += "\r\n\r\n";
  for (auto _ : state) benchmark::DoNotOptimize(text.Index("\r\n\r\n"));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(IndexOfText);

SString ManyLines(int count) {
  SString text;
  for (int i = 0; i < count; ++i) text += "Field-" + MakeSString(i) + ": some value of a usual length\r\n";
  return text;
}

void SplitExactLines(benchmark::State &state) {
  SString const text = ManyLines(1000);
  for (auto _ : state) benchmark::DoNotOptimize(text.SplitExact("\r\n"));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(SplitExactLines);

void JoinLines(benchmark::State &state) {
  SString const text = ManyLines(1000);
  SStringList const lines = text.SplitExact("\r\n");
  for (auto _ : state) benchmark::DoNotOptimize(lines.Join("\r\n"));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(JoinLines);

void WalkByIterator(benchmark::State &state) {
  SStringList const lines = ManyLines(10000).SplitExact("\r\n");
  for (auto _ : state)
    for (SString const &line : lines) benchmark::DoNotOptimize(line.Length());
  state.SetItemsProcessed(state.iterations() * lines.Length());
}
void WalkByIndex(benchmark::State &state) {
  SStringList const lines = ManyLines(10000).SplitExact("\r\n");
  for (auto _ : state)
    for (int i = 0; i < lines.Length(); ++i) benchmark::DoNotOptimize(lines.Get(i).Length());
  state.SetItemsProcessed(state.iterations() * lines.Length());
}
BENCHMARK(WalkByIterator);
BENCHMARK(WalkByIndex);

std::vector<SString> Keys(int count) {
  std::vector<SString> keys;
  for (int i = 0; i < count; ++i) keys.push_back("Header-Field-" + MakeSString(i) + ":");
  return keys;
}

void TableLookup(benchmark::State &state) {
  std::vector<SString> const keys = Keys(static_cast<int>(state.range(0)));
  SNamedStringList table(0, 1);
  for (SString const &key : keys) table[key].Push("value");
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(table.Get(keys[i++ % keys.size()]));
}
void StdMapLookup(benchmark::State &state) {
  std::vector<SString> const keys = Keys(static_cast<int>(state.range(0)));
  std::unordered_map<std::string_view, SStringList> table;
  for (SString const &key : keys) table[key.View()].Push("value");
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(SStringList(table.find(keys[i++ % keys.size()].View())->second));
}
BENCHMARK(TableLookup)->Arg(20)->Arg(10000);
BENCHMARK(StdMapLookup)->Arg(20)->Arg(10000);

// Keys made to collide, 2^n of them: in the plain hash, which multiplies by 33, "a`" and "b?" weigh the same.
void TableHostileKeys(benchmark::State &state) {
  std::vector<SString> keys;
  for (int bits = 0; bits < 1 << state.range(0); ++bits) {
    SString key;
    for (int i = 0; i < state.range(0); ++i) key += (bits >> i & 1) != 0 ? "a`" : "b?";
    keys.push_back(key);
  }
  for (auto _ : state) {
    SNamedStringList table(1, 0);
    for (SString const &key : keys) table[key].Define();
    benchmark::DoNotOptimize(table);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(keys.size()));
}
BENCHMARK(TableHostileKeys)->Arg(10)->Arg(14);

void FieldsParse(benchmark::State &state, SString const &text) {
  for (auto _ : state) {
    SNamedStringList table(0, 1);
    text >> table;
    benchmark::DoNotOptimize(table);
  }
  state.SetBytesProcessed(state.iterations() * text.Length());
}
void FieldsWrite(benchmark::State &state, SString const &text) {
  SNamedStringList table(0, 1);
  text >> table;
  for (auto _ : state) {
    SString out;
    benchmark::DoNotOptimize(out << table);
  }
  state.SetBytesProcessed(state.iterations() * text.Length());
}

SString const kFewFields = ManyLines(20);
SString const kManyFields = ManyLines(10000);
SString const kOneLongField = "Subject: " + SString('x', 1 << 20) + "\r\n";
SString const kManyFolds = "Received: x" + ManyLines(10000).SplitExact("\r\n").Join("\r\n ") + "\r\n";
BENCHMARK_CAPTURE(FieldsParse, few, kFewFields);
BENCHMARK_CAPTURE(FieldsParse, many, kManyFields);
BENCHMARK_CAPTURE(FieldsParse, one_mebibyte, kOneLongField);
BENCHMARK_CAPTURE(FieldsParse, folded, kManyFolds);
BENCHMARK_CAPTURE(FieldsWrite, few, kFewFields);
BENCHMARK_CAPTURE(FieldsWrite, many, kManyFields);

}  // namespace
