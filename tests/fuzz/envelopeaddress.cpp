// Any text as an envelope address, by the strict and the lenient parser.
//
// The first byte of the input picks the parser; the rest is the text.
#include "brenthaven/address/parser821.h"
#include "tests/fuzz/fuzz.h"

namespace {

void ExpectSoundDomain(SString const &domain) {
  for (unsigned char const c : domain.View())
    fuzz::Expect(c > 0x20 && c < 0x7f && c != '/' && c != '\\' && c != '@' && c != '<' && c != '>',
                 "a valid domain that is no host name", domain.View());
  fuzz::Expect(IsValidDomain(domain) != 0, "an address with a domain that is none", domain.View());
}

// Printed and read again, an address is the same. A strict parser may refuse it: dots that were quoted or escaped are
// printed as they are. A quote in the middle keeps a local part from being brought into form, and a backslash at its
// end then takes what is printed behind it.
void ExpectReadsBack(S821Address const &address) {
  SString const printed = address.Address();
  if (address.LocalPart()[-1] == '\\' && address.LocalPart().Index('"') >= 0) return;
  S821Address const again(printed);
  fuzz::Expect(again.IsValid() != 0, "a printed address is not read back", printed.View());
  fuzz::Expect(again.Address() == printed, "a printed address is read as another", printed.View());
  fuzz::Expect(again.LocalPart() == address.LocalPart() && again.Domain() == address.Domain() &&
                   again.Route() == address.Route(),
               "a printed address is split elsewhere", printed.View());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  if (size == 0) return 0;
  unsigned const lenient = data[0] & 1;
  SString const text = fuzz::Text(fuzz::View(data + 1, size - 1));
  S821Parser parser(text, lenient);
  S821Address const address = parser.ExtractAddress();
  SString const printed = address.Address();
  fuzz::Expect(address.IsBad() + address.IsNull() + address.IsValid() == 1, "an address is of two kinds", text.View());
  fuzz::Expect(address.IsValid() == (printed.Length() > 2), "what is printed of a bad address", printed.View());
  if (address.IsValid()) {
    for (SString const &host : address.Route()) fuzz::Expect(host.Length() > 0, "an empty host in a route");
    if (address.Domain().Length() > 0) ExpectSoundDomain(address.Domain());
    ExpectReadsBack(address);
  }
  for (SString const &word : parser.Extensions())
    fuzz::Expect(word.Length() > 0 && word.Index(' ') < 0, "a parameter that is no word", word.View());
  if (IsValidDomain(text) != 0 && text.Index(' ') < 0) ExpectSoundDomain(text);
  return 0;
}
