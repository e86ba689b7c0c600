// Any text as the address list of a header field, and as an address that FixBogusAddress makes the best of.
#include "brenthaven/address/parser822.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Addresses lie in the text one behind another.
void ExpectOrderedSpans(SString const &text) {
  S822Parser parser(text);
  S822Address address;
  int last = -1;
  int count = 0;
  int start = 0;
  int end = 0;
  while (parser.GetNextAddress(address, start, end)) {
    fuzz::Expect(++count <= text.Length() + 1, "a list of more addresses than bytes", text.View());
    fuzz::Expect(start > last && start < text.Length(), "an address begins outside the text", text.View());
    fuzz::Expect(end >= start - 1 && end < text.Length(), "an address ends outside the text", text.View());
    last = start;
  }
}

// In a header a quoted string, a comment or a literal may stand among the words of a local part. In an envelope none
// may, but a quoted string alone.
bool IsForHeadersOnly(SString const &address) {
  return address.View().find_first_of("([", 1) != std::string_view::npos ||
         address.View().find('"', 2) != std::string_view::npos;
}

// A literal of a header may hold blanks.
std::string WithoutBlanks(SString const &address) {
  std::string text = fuzz::Bytes(address);
  std::erase(text, ' ');
  return text;
}

void ExpectValidList(SString const &text) {
  SStringList const addresses = S822Parser(text).Addresses();
  for (SString const &address : addresses) {
    S821Address const read(address);
    if (read.IsBad() && IsForHeadersOnly(address)) continue;
    fuzz::Expect(!read.IsBad(), "a list gave an address that is none", address.View());
    fuzz::Expect(WithoutBlanks(read.Address()) == WithoutBlanks(address), "a list gave an address in another form",
                 address.View());
  }
}

void ExpectMended(SString const &text) {
  SString const mended = FixBogusAddress(text);
  if (mended.View().ends_with("\\>")) return;  // left out of form, as every text with a quote in its middle
  S821Address const address(mended);
  fuzz::Expect(!address.IsBad(), "a mended address is none", mended.View());
  fuzz::Expect(mended == "<>" || address.IsValid(), "a mended address is null", mended.View());
  fuzz::Expect(address.Address() == mended, "a mended address is in another form", mended.View());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  SString const text = fuzz::Text(fuzz::View(data, size));
  ExpectOrderedSpans(text);
  ExpectValidList(text);
  ExpectMended(text);
  return 0;
}
