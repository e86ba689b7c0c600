// Both address parsers: nanoseconds for each address on everyday input, and bytes a second on the worst inputs known,
// at two sizes, so that anything worse than linear shows as a falling rate.
#include <benchmark/benchmark.h>

#include <string>

#include "brenthaven/address/parser822.h"

namespace {

SString Bytes(std::string const &bytes) { return SString(bytes.data(), static_cast<int>(bytes.size())); }

SString Repeated(std::string const &front, std::string const &unit, std::string const &back, int64_t size) {
  std::string text = front;
  while (text.size() + back.size() < static_cast<size_t>(size)) text += unit;
  return Bytes(text + back);
}

void Envelope(benchmark::State &state, char const *text) {
  SString const input = text;
  for (auto _ : state) benchmark::DoNotOptimize(S821Address(input));
}
BENCHMARK_CAPTURE(Envelope, path, "<jo.doe@mail.example.org>");
BENCHMARK_CAPTURE(Envelope, quoted, "<\"jo doe\"@example.org>");
BENCHMARK_CAPTURE(Envelope, route, "<@a.example,@b.example:jo@c.example>");

void PrintEnvelope(benchmark::State &state) {
  S821Address const address("<jo.doe@mail.example.org>");
  for (auto _ : state) benchmark::DoNotOptimize(address.Address());
}
BENCHMARK(PrintEnvelope);

void ValidDomain(benchmark::State &state) {
  SString const domain("mail.example.org");
  for (auto _ : state) benchmark::DoNotOptimize(IsValidDomain(domain));
}
BENCHMARK(ValidDomain);

void HeaderList(benchmark::State &state) {
  std::string text;
  for (int i = 0; i < state.range(0); ++i)
    text += "\"Doe, Jo\" <user" + std::to_string(i) + "@example.org> (home),\r\n ann (Ann) @example.com,\r\n ";
  S822Parser parser(Bytes(text));
  for (auto _ : state) benchmark::DoNotOptimize(parser.Addresses());
  state.SetItemsProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(HeaderList)->Arg(1)->Arg(500);

void MendBogus(benchmark::State &state) {
  SString const text("Jo <jo doe @ 10.0.0.1> x");
  for (auto _ : state) benchmark::DoNotOptimize(FixBogusAddress(text));
}
BENCHMARK(MendBogus);

struct Worst {
  char const *front;
  char const *unit;
  char const *back;
};

void WorstEnvelope(benchmark::State &state, Worst worst) {
  SString const input = Repeated(worst.front, worst.unit, worst.back, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(S821Address(input));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(WorstEnvelope, route, Worst{"<", "@a,", "@b:c@d>"})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstEnvelope, dots, Worst{"x@", "a.", "b"})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstEnvelope, escapes, Worst{"\"", "\\\"", "\"@x"})->Arg(1 << 16)->Arg(1 << 20);

void WorstHeader(benchmark::State &state, Worst worst) {
  S822Parser parser(Repeated(worst.front, worst.unit, worst.back, state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(parser.Addresses());
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(WorstHeader, openComments, Worst{"", "(", ""})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstHeader, comments, Worst{"", "()", "a@b"})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstHeader, folds, Worst{"a", "\r\n ", "@b"})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstHeader, names, Worst{"", "a,", "a"})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstHeader, phrase, Worst{"", "a ", "<a@b>"})->Arg(1 << 16)->Arg(1 << 20);

}  // namespace
