#include "brenthaven/exploder/returnpath.h"

#include <algorithm>
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/constanttime.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/slistkey.h"

namespace {

constexpr int kKeyLength = 8;
constexpr int kLongestLocalPart = 64;  // RFC 5321 section 4.5.3.1.1

// Not the key that confirms a subscriber's requests: whoever sees a return path must not be able to leave in his name.
SString KeyOf(SString const &listUID, SString const &subscriber, SString const &secret) {
  return MakeListKey({"return path of " + subscriber, listUID}, secret);
}

bool IsPlain(SString const &text, char const *others) {
  auto const isPlain = [others](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
           std::string_view(others).find(c) != std::string_view::npos;
  };
  std::string_view const view = text.View();
  return !view.empty() && view.front() != '.' && view.back() != '.' && view.find("..") == std::string_view::npos &&
         std::all_of(view.begin(), view.end(), isPlain);
}

}  // namespace

S821Address MakeReturnPath(SString const &listUID, SString const &listName, SString const &subscriber,
                           SString const &domain, SString const &secret) {
  SString const name = LowerCase(listName);
  SString const address = LowerCase(subscriber);
  int const at = address.RIndex('@');
  if (at < 1 || domain.Length() == 0 || !IsPlain(name, "-_.")) return S821Address();
  SString const encoded = address.Segment(0, at) + "=" + address.Segment(at + 1, address.Length());
  if (!IsPlain(address.Segment(0, at), "-_.+=&'*/?^~#") || !IsPlain(address.Segment(at + 1, address.Length()), "-."))
    return S821Address();
  SString const local = KeyOf(listUID, address, secret) + "+" + name + "+" + encoded;
  if (local.Length() > kLongestLocalPart) return S821Address();
  S821Address path;
  path.LocalPart() = local;
  path.Domain() = domain;
  return path;
}

unsigned ReadReturnPath(S821Address const &address, SString const &secret, SReturnPath &path) {
  SStringList const parts = LowerCase(address.LocalPart()).SplitExact("+", 3);
  SString const &encoded = parts.Get(2);
  int const equals = encoded.RIndex('=');
  if (parts.Get(0).Length() != kKeyLength || equals < 1) return 0;
  path.listUID = SListDB().IndexLookup(kAttrListName, parts.Get(1)).Get(0);
  path.subscriber = encoded.Segment(0, equals) + "@" + encoded.Segment(equals + 1, encoded.Length());
  return path.listUID.Length() > 0 &&
         SameBytes(parts.Get(0).View(), KeyOf(path.listUID, path.subscriber, secret).View());
}
