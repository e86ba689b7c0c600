// Base64 both ways.
#include "brenthaven/mime/smime.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Letter by letter, by the letter's place in the alphabet.
std::string SlowlyDecoded(std::string_view text) {
  std::string decoded;
  std::string group;
  for (char const c : text) {
    if (c != '=' && kAlphabet.find(c) == kAlphabet.npos) continue;
    group += c;
    if (group.size() < 4) continue;
    size_t const pad = std::min<size_t>(group.find('='), 4);
    bool const isSound = pad == 4 || pad == 3 || (pad == 2 && group[3] == '=');
    unsigned long bits = 0;
    for (size_t i = 0; i < 4; ++i) bits = bits << 6 | (i < pad ? kAlphabet.find(group[i]) : 0);
    for (size_t i = 0; isSound && i + 1 < pad; ++i) decoded += static_cast<char>(bits >> (16 - 8 * i));
    if (pad < 4) break;
    group.clear();
  }
  return decoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  SString const text = fuzz::Text(fuzz::View(data, size));
  SString const encoded = EncodeBase64(text);
  fuzz::Expect(DecodeBase64(encoded) == text, "text is not the same once it was encoded", text.View());
  std::string_view lines = encoded.View();
  while (!lines.empty()) {
    size_t const end = lines.find("\r\n");
    fuzz::Expect(end != lines.npos && end <= 76 && end % 4 == 0, "a line that is none", encoded.View());
    fuzz::Expect(lines.substr(0, end).find_first_not_of("=") != lines.npos, "a line of padding", encoded.View());
    lines.remove_prefix(end + 2);
  }
  SString const decoded = DecodeBase64(text);
  fuzz::Expect(decoded.Length() <= text.Length() / 4 * 3, "more was decoded than there is", text.View());
  fuzz::Expect(decoded.View() == SlowlyDecoded(text.View()), "decoded otherwise than letter by letter", text.View());
  return 0;
}
