#include "brenthaven/accounts/passwords.h"

#include <md5.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "brenthaven/accounts/constanttime.h"
#include "brenthaven/accounts/hexadecimal.h"
#include "brenthaven/accounts/sitekeys.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kSaltLength = 32;
constexpr int kHashLength = 32;
constexpr int kRandomSeedBytes = 10;

SString Hash(SString const &salt, SString const &plain) {
  return MD5(salt + sitekeys::kBeforePassword + plain + sitekeys::kBehindPassword + salt);
}

}  // namespace

SString MD5(SString const &text) {
  MD5_CTX context;
  std::array<std::uint8_t, MD5_DIGEST_LENGTH> digest;
  MD5Init(&context);
  MD5Update(&context, reinterpret_cast<std::uint8_t const *>(text.View().data()), text.View().size());
  MD5Final(digest.data(), &context);
  return ToHexadecimal(digest.data(), digest.size());
}

SString MD5Secret(SString const &text) { return MD5(text + sitekeys::kSecretSuffix); }

SString StringCopy(SString const &plain) {
  SString seed;
  for (int i = 0; i < kRandomSeedBytes; ++i) seed += static_cast<char>(RandomInt(256));
  SString const salt = MD5(seed + ProcessIdString() + RFC822Date());
  return salt + Hash(salt, plain);
}

int StringComp(SString const &plain, SString const &stored) {
  if (stored.Length() != kSaltLength + kHashLength) return 0;
  return SameBytes(Hash(stored.Segment(0, kSaltLength), plain).View(), stored.View().substr(kSaltLength));
}

SString Scramble(SString const &text, unsigned undo) {
  if (text.Length() == 0) return text;
  if (undo != 0 && static_cast<unsigned char>(text[0] ^ sitekeys::kScramble) < 0x20) return text;
  std::string bytes(text.View());
  for (char &byte : bytes) byte = static_cast<char>(byte ^ sitekeys::kScramble);
  return SString(std::string_view(bytes));
}
