#include "brenthaven/accounts/access.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "brenthaven/net/dns.h"
#include "brenthaven/net/dottedquad.h"

namespace {

constexpr char kEveryone[] = "all";
constexpr char kNobody[] = "none";
constexpr int kAddressBits = 32;
constexpr int kByteBits = 8;

// A quad without the brackets around it; any other text as it is.
SString WithoutBrackets(SString const &text) {
  std::string_view inner = text.View();
  if (inner.starts_with('[')) inner.remove_prefix(1);
  if (inner.ends_with(']')) inner.remove_suffix(1);
  return IsDottedQuad(inner) ? SString(inner) : text;
}

// The address that a quad stands for; nothing for another text and for a part above 255.
std::optional<std::uint32_t> AddressOf(SString const &quad) {
  if (!IsDottedQuad(quad.View())) return std::nullopt;
  std::uint32_t address = 0;
  for (SString const &part : quad.SplitExact(".")) {
    long const value = part.AsLong();
    if (value > 255) return std::nullopt;
    address = address << kByteBits | static_cast<std::uint32_t>(value);
  }
  return address;
}

// The client, and what the name service says about it: asked when a pattern needs it, and once.
class SClient {
public:
  explicit SClient(SString const &client)
      : _client(WithoutBrackets(client)), _isNumeric(IsDottedQuad(_client.View())) {}

  SStringList const &Names() {
    if (!_names.Defined()) {
      _names = _isNumeric ? GetHostByAddr(_client) : SStringList(_client);
      _names.Define();
    }
    return _names;
  }
  SStringList const &Addresses() {
    if (!_addresses.Defined()) {
      _addresses = _isNumeric ? SStringList(_client) : GetHostByName(_client);
      _addresses.Define();
    }
    return _addresses;
  }

private:
  SString const _client;
  bool const _isNumeric;
  SStringList _names;
  SStringList _addresses;
};

bool IsInNetwork(SClient &client, SString const &network, int bits) {
  if (bits == 0) return true;
  std::optional<std::uint32_t> const wanted = AddressOf(network);
  if (!wanted) return false;
  std::uint32_t const mask = ~std::uint32_t{0} << (kAddressBits - bits);
  for (SString const &text : client.Addresses()) {
    std::optional<std::uint32_t> const address = AddressOf(text);
    if (address && (*address & mask) == (*wanted & mask)) return true;
  }
  return false;
}

// The bits of a network as its text gives them.
int Bits(SString const &text) {
  int bits = 0;
  std::string_view const view = text.View();
  bool const isNumber = std::from_chars(view.data(), view.data() + view.size(), bits).ec == std::errc();
  return isNumber && bits >= 0 && bits <= kAddressBits ? bits : kAddressBits;
}

// The bits of a network that is given by an address alone: those of the bytes in front of its trailing zeros.
int BitsInUse(SString const &quad) {
  int bits = kAddressBits;
  SStringList parts = quad.SplitExact(".");
  while (bits > 0 && parts.Pop().AsLong() == 0) bits -= kByteBits;
  return bits;
}

// Whole labels at the end of one of the client's names. One dot at the pattern's end counts for nothing.
bool IsInDomain(SClient &client, SString const &pattern) {
  SString domain = "." + pattern;
  if (domain[-1] == '.') domain.Chop();
  for (SString const &name : client.Names())
    if (LowerCase("." + name).View().ends_with(domain.View())) return true;
  return false;
}

bool Holds(SString const &pattern, SClient &client) {
  SStringList const halves = pattern.SplitExact("/");
  if (halves.Length() == 2) return IsInNetwork(client, WithoutBrackets(halves.Get(0)), Bits(halves.Get(1)));
  SString const quad = WithoutBrackets(pattern);
  return IsDottedQuad(quad.View()) ? IsInNetwork(client, quad, BitsInUse(quad)) : IsInDomain(client, pattern);
}

}  // namespace

int AccessOK(SString const &client, SStringList const &patterns) {
  SStringList wanted;
  for (SString const &pattern : patterns)
    if (pattern.Length() > 0) wanted.Push(LowerCase(pattern));
  if (wanted.Length() == 0 || wanted.Contains(kEveryone)) return 1;
  if (wanted.Contains(kNobody)) return 0;

  SClient who(client);
  for (SString const &pattern : wanted)
    if (Holds(pattern, who)) return 1;
  return 0;
}
