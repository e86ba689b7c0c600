// The sideline judge: nanoseconds for a message by rules, and for a filter of 100 lines; the last ones are made to be
// slow. The rival of the kept filter is the one that is compiled anew.
#include <benchmark/benchmark.h>

#include <string>

#include "brenthaven/router/judge.h"

namespace {

// Lines that all have to be matched, most of them on fields that each message has.
SStringList FilterLines(int count) {
  SStringList lines;
  for (int i = 0; i < count; ++i) {
    std::string const number = std::to_string(i);
    std::string const line = i % 4 == 0   ? "Subject (*lottery*" + number + ") or"
                             : i % 4 == 1 ? "From: (@host" + number + "\\.example) or"
                             : i % 4 == 2 ? "Received (\\[10\\.1\\." + number + "\\.\\d+\\]) or"
                                          : "X-Mailer-" + number + " (bulk|mass) or";
    lines.Push(SString(line));
  }
  return lines;
}

SHeader Header() {
  SHeader header;
  SString text;
  for (int i = 0; i < 6; ++i)
    text += "Received: from mx" + SString(i) + ".example.net (mx" + SString(i) +
            ".example.net [192.0.2.1])\r\n\tby mail.example.org; Tue, 4 Mar 2003 09:05:00 +0100\r\n";
  text +=
      "From: Some Body <somebody@far.example>\r\nTo: ann@example.org\r\nSubject: the minutes of last week\r\n"
      "Date: Tue, 4 Mar 2003 09:05:00 +0100\r\nMessage-ID: <20030304@far.example>\r\nMIME-Version: 1.0\r\n"
      "Content-Type: text/plain; charset=us-ascii\r\n";
  text >> header;
  return header;
}

SControl Control() {
  SControl control;
  SString(
      "Function: SMTP-Router\r\nUser-From: SMTP <somebody@far.example>\r\nHost-From: far.example [192.0.2.1]\r\n"
      "Channel-To: SMTP <ann@example.org>\r\n") >>
      control;
  return control;
}

// By the bits of the rules that are on.
void JudgeSender(benchmark::State &state, unsigned long rules) {
  SSidelineSettings settings;
  settings.rules = rules;
  settings.mostRecipients = settings.mostTcpRecipients = 100;
  SControl control = Control();
  SSidelineJudge const judge;
  SString reason;
  for (auto _ : state) benchmark::DoNotOptimize(judge.Judge(control, settings, reason));
}
BENCHMARK_CAPTURE(JudgeSender, no_rule, 0UL);
BENCHMARK_CAPTURE(JudgeSender, all_without_network_and_filter,
                  1UL << kSidelineNullAddress | 1UL << kSidelineNoDomain | 1UL << kSidelineHostDomain |
                      1UL << kSidelineIpDomain | 1UL << kSidelineRecipients | 1UL << kSidelineTcpRecipients);

void FilterHits(benchmark::State &state) {
  SString badLine;
  auto const filter = SHeaderFilter::Of(FilterLines(static_cast<int>(state.range(0))), &badLine);
  SHeader const header = Header();
  for (auto _ : state) benchmark::DoNotOptimize(filter->Hits(header));
}
BENCHMARK(FilterHits)->Arg(1)->Arg(10)->Arg(100);

void FilterKept(benchmark::State &state) {
  SStringList const lines = FilterLines(100).Clone();
  SString badLine;
  (void)SHeaderFilter::Of(FilterLines(100), &badLine);
  for (auto _ : state) benchmark::DoNotOptimize(SHeaderFilter::Of(lines, &badLine));
}
BENCHMARK(FilterKept);

void FilterCompiledAnew(benchmark::State &state) {
  SStringList const lines[] = {FilterLines(100), FilterLines(99)};
  SString badLine;
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(SHeaderFilter::Of(lines[i ^= 1], &badLine));
}
BENCHMARK(FilterCompiledAnew);

void HostileHeader(benchmark::State &state, SString const &line, int fields, int bytes) {
  SHeader header;
  SString text;
  for (int i = 0; i < fields; ++i) text += "Subject: " + SString('a', bytes) + "\r\n";
  text >> header;
  SString badLine;
  auto const filter = SHeaderFilter::Of(line, &badLine);
  for (auto _ : state) benchmark::DoNotOptimize(filter->Hits(header));
  state.SetBytesProcessed(state.iterations() * fields * bytes);
}
BENCHMARK_CAPTURE(HostileHeader, star_in_mebibyte, "Subject (*lottery*) or", 1, 1 << 20);
BENCHMARK_CAPTURE(HostileHeader, nested_stars_in_mebibyte, "Subject ((((a*)*)*)*$x) or", 1, 1 << 20);
BENCHMARK_CAPTURE(HostileHeader, nested_stars_in_ten_thousand_fields, "Subject ((((a*)*)*)*$x) or", 10000, 60);

}  // namespace
