// Base64, MIME and line breaking, in bytes a second of the input; the worst cases at two sizes, so that anything worse
// than linear shows as a falling rate.
#include <benchmark/benchmark.h>

#include <string>

#include "brenthaven/mime/linebreak.h"
#include "brenthaven/mime/smime.h"
#include "brenthaven/spool/header.h"

namespace {

SString Bytes(std::string const &bytes) { return SString(bytes.data(), static_cast<int>(bytes.size())); }

SString Mixed(int64_t size) {
  std::string bytes;
  uint32_t next = 1;  // a fixed seed
  for (int64_t i = 0; i < size; ++i) bytes += static_cast<char>((next = next * 1664525 + 1013904223) >> 24);
  return Bytes(bytes);
}

SString Repeated(std::string const &unit, int64_t size) {
  std::string text;
  while (text.size() < static_cast<size_t>(size)) text += unit;
  return Bytes(text);
}

SHeader Multipart(SString const &boundary) {
  SHeader header;
  header["MIME-Version:"] = "1.0";
  header["Content-Type:"] = "multipart/mixed; boundary=\"" + boundary + "\"";
  return header;
}

void Encode(benchmark::State &state) {
  SString const text = Mixed(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(EncodeBase64(text));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(Encode)->Arg(100)->Arg(1 << 20);

void Decode(benchmark::State &state) {
  SString const text = EncodeBase64(Mixed(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(DecodeBase64(text));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(Decode)->Arg(100)->Arg(1 << 20);

void DecodeScattered(benchmark::State &state) {  // no two letters side by side
  SString const text = Repeated("Q ", state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(DecodeBase64(text));
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(DecodeScattered)->Arg(1 << 20);

void ParseParts(benchmark::State &state) {
  SString const part = "--b\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: 7bit\r\n\r\n" +
                       Repeated("A line of ordinary text - with -- dashes.\r\n", state.range(0));
  SString body;
  for (int i = 0; i < 10; ++i) body += part;
  body += "--b--\r\n";
  SHeader const header = Multipart("b");
  for (auto _ : state) benchmark::DoNotOptimize(SMIME(header, body));
  state.SetBytesProcessed(state.iterations() * body.Length());
}
BENCHMARK(ParseParts)->Arg(400)->Arg(1 << 17);

void BuildParts(benchmark::State &state) {
  SMIME mime;
  mime.SetType("multipart", "mixed");
  mime.SetBoundary("b");
  mime.AddPart("text", "plain", "7bit", "Hello\r\n");
  mime.AddPart("image", "png", "base64", Mixed(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(mime.operator SString());
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BuildParts)->Arg(4096)->Arg(1 << 20);

struct Worst {
  char const *unit;
  int boundary;  // dashes in it; 0 stands for "b"
};

void WorstParts(benchmark::State &state, Worst worst) {
  SHeader const header = Multipart(worst.boundary > 0 ? SString('-', worst.boundary) : SString("b"));
  SString const body = Repeated(worst.unit, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(SMIME(header, body));
  state.SetBytesProcessed(state.iterations() * body.Length());
}
BENCHMARK_CAPTURE(WorstParts, dashes, Worst{"-", 900})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstParts, falseDelimiters, Worst{"--b x\r\n", 0})->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK_CAPTURE(WorstParts, emptyParts, Worst{"--b\r\n", 0})->Arg(1 << 16)->Arg(1 << 20);

void BreakLines(benchmark::State &state) {
  SString const text = Repeated("Received: from a.example.org by b.example.org; Tue\r\n", state.range(0));
  for (auto _ : state) {
    SLineBreaker breaker(text, 0);
    for (SString line; breaker.ReadLine(line);) benchmark::DoNotOptimize(line);
  }
  state.SetBytesProcessed(state.iterations() * text.Length());
}
BENCHMARK(BreakLines)->Arg(4096)->Arg(1 << 20);

}  // namespace
