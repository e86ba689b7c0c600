#include "brenthaven/platform/logtext.h"

std::string LogText(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  constexpr std::string_view kCut = "...";
  std::string line;
  for (char const c : text) {
    unsigned char const byte = static_cast<unsigned char>(c);
    std::string piece(1, c);
    if (byte < 0x20 || byte == 0x7f) piece = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    if (line.size() + piece.size() > kLongestLogText) return line.append(kCut);
    line += piece;
  }
  return line;
}
