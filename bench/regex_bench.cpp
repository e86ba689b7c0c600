// Regular expressions: microseconds to compile, and to match, substitute and split; the last ones are made to be slow.
// The rival is the matcher of the C library.
#include <benchmark/benchmark.h>
#include <regex.h>

#include <string>

#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char kAddress[] = "^([^@]+)@([A-Za-z0-9.-]+)$";
constexpr char kAddressText[] = "someone.long@mail.example.org";
constexpr char kLiteral[] = "^\\[(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\]$";

void Compile(benchmark::State &state, char const *expression) {
  for (auto _ : state) benchmark::DoNotOptimize(SPerlRegex(expression).OK());
}
BENCHMARK_CAPTURE(Compile, plain, "Subject:");
BENCHMARK_CAPTURE(Compile, address, kAddress);
BENCHMARK_CAPTURE(Compile, literal, kLiteral);

void HasMatch(benchmark::State &state, char const *expression, SString const &text) {
  SPerlRegex const regex(expression);
  for (auto _ : state) benchmark::DoNotOptimize(regex.HasMatch(text));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK_CAPTURE(HasMatch, plain, "example", kAddressText);
BENCHMARK_CAPTURE(HasMatch, address, kAddress, kAddressText);
BENCHMARK_CAPTURE(HasMatch, literal, kLiteral, "[192.168.100.200]");
BENCHMARK_CAPTURE(HasMatch, words, "^\\s*(\\S+)", "  quoted-printable");
BENCHMARK_CAPTURE(HasMatch, absent_in_mebibyte, "\\d\\d\\d", SString('x', 1 << 20));
BENCHMARK_CAPTURE(HasMatch, prefix_in_mebibyte, "boundary=\\S+", SString('x', 1 << 20));

void MatchOfTheCLibrary(benchmark::State &state) {
  regex_t regex;
  if (regcomp(&regex, kAddress, REG_EXTENDED) != 0) return state.SkipWithError("refused");
  regmatch_t slots[10];
  for (auto _ : state) benchmark::DoNotOptimize(regexec(&regex, kAddressText, 10, slots, 0));
  regfree(&regex);
}
BENCHMARK(MatchOfTheCLibrary);

void MatchByText(benchmark::State &state) {
  SString const text(kAddressText);
  for (auto _ : state) benchmark::DoNotOptimize(text.M(kAddress));
}
BENCHMARK(MatchByText);

void SubstituteAll(benchmark::State &state) {
  SString text;
  for (int i = 0; i < 1000; ++i) text += "a line of text\n";
  for (auto _ : state) {
    SString changed = text;
    benchmark::DoNotOptimize(changed.S("\n", "\r\n", "g"));
  }
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(SubstituteAll);

void SplitByExpression(benchmark::State &state, char const *expression) {
  SString text;
  for (int i = 0; i < 1000; ++i) text += "user@example.org, ";
  for (auto _ : state) benchmark::DoNotOptimize(text.Split(expression));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK_CAPTURE(SplitByExpression, blanks, "\\s*,\\s*");
BENCHMARK_CAPTURE(SplitByExpression, plain, ", ");

void SplitByByte(benchmark::State &state) {
  SString text;
  for (int i = 0; i < 1000; ++i) text += "user@example.org,";
  for (auto _ : state) benchmark::DoNotOptimize(text.Split(','));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(SplitByByte);

BENCHMARK_CAPTURE(HasMatch, hostile_nested, "((a*)*)*b", SString('a', 1 << 16));
BENCHMARK_CAPTURE(HasMatch, hostile_bounds, "(.{0,40}){0,20}z", SString('a', 1 << 12));
BENCHMARK_CAPTURE(HasMatch, hostile_options, "(a?){60}a{60}b", SString('a', 1 << 12));

}  // namespace
