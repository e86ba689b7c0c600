// FixBogusAddress.
#include "brenthaven/address/parser822.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kWhite = " \f\n\r\t\v";
constexpr size_t kNone = std::string_view::npos;

// What stands between the last "<" and the first ">" behind it, less the brackets and white space around it.
std::string_view Unwrapped(std::string_view text) {
  size_t const open = text.find('<');
  if (open != kNone && text.find('>', open) != kNone) {
    if (size_t const last = text.rfind('<'); last > 0) text.remove_prefix(last + 1);
    text = text.substr(0, text.find('>'));
  }
  text.remove_prefix(std::min(text.find_first_not_of(" \f\n\r\t\v<"), text.size()));
  return text.substr(0, text.find_last_not_of(" \f\n\r\t\v>") + 1);
}

// Pieces between runs of "@" and white space that hold an "@". Nothing follows a run at the end.
std::vector<std::string_view> SplitAtSigns(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (!text.empty()) {
    std::string_view piece = text.substr(0, text.find('@'));
    text.remove_prefix(piece.size());
    text.remove_prefix(std::min(text.find_first_not_of("@ \f\n\r\t\v"), text.size()));
    pieces.push_back(piece.substr(0, piece.find_last_not_of(kWhite) + 1));
  }
  return pieces;
}

// The labels of a domain, whatever stands between them, with single dots; in brackets when they make a dotted quad.
SString MendedDomain(std::string_view text) {
  constexpr std::string_view kBetween = " \f\n\r\t\v.,";
  SString domain("");
  while (!text.empty()) {
    std::string_view const label = text.substr(0, text.find_first_of(kBetween));
    if (!label.empty() && domain.Length() > 0) domain += '.';
    domain.Append(label);
    text.remove_prefix(label.size());
    text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
  }
  SString const literal = "[" + domain + "]";
  return !IsValidDomain(domain) && IsValidDomain(literal) ? literal : domain;
}

// The printed form, or an undefined string for a null or bad address.
SString Parsed(SString const &text) {
  SString const printed = S821Address(text).Address();
  return printed.Length() > 2 ? printed : SString();
}

SString Quoted(std::string_view local) { return "\"" + SString(local) + "\""; }

SString Rejoined(std::string_view local, std::string_view host) {
  SString const domain = MendedDomain(host);
  if (!IsValidDomain(domain)) return SString();
  SString const plain = Parsed("<" + SString(local) + "@" + domain + ">");
  return plain.Defined() ? plain : Parsed("<" + Quoted(local) + "@" + domain + ">");
}

// The local part may hold "@" itself, if it is quoted.
SString QuotedBeforeLastAt(std::string_view text) {
  size_t const last = text.rfind('@');
  if (last == kNone || text.find('@') == last) return SString();
  return Parsed(Quoted(text.substr(0, last)) + "@" + SString(text.substr(last + 1)));
}

SString Mended(std::string_view text) {
  SString quoted = QuotedBeforeLastAt(text);
  if (quoted.Defined()) return quoted;
  std::vector<std::string_view> pieces = SplitAtSigns(text);
  if (pieces.size() > 2 && text.front() == '@') {  // a route: what leads there is dropped
    pieces.erase(pieces.begin(), pieces.end() - 2);
    pieces[0].remove_prefix(pieces[0].rfind(':') + 1);
    pieces[0].remove_prefix(std::min(pieces[0].find_first_not_of(kWhite), pieces[0].size()));
  }
  if (pieces.size() == 1) return Parsed(SString(pieces[0]));
  return pieces.size() == 2 ? Rejoined(pieces[0], pieces[1]) : SString();
}

}  // namespace

SString FixBogusAddress(SString text) {
  SString const mended = Mended(Unwrapped(text.View()));
  return mended.Defined() ? mended : SString("<>");
}
