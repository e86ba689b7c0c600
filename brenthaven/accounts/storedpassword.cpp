#include "brenthaven/accounts/storedpassword.h"

#include <crypt.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <string_view>

#include "brenthaven/accounts/constanttime.h"
#include "brenthaven/accounts/passwords.h"
#include "brenthaven/platform/sharedlibrary.h"

namespace {

constexpr std::string_view kDefaultScheme = "md5";
constexpr int kDefaultLength = 64;  // bytes of its form

// The crypt(3) forms that are made and taken.
struct CryptScheme {
  std::string_view name;
  char const *prefix;
};
constexpr CryptScheme kCryptSchemes[] = {{"yescrypt", "$y$"}, {"sha512", "$6$"}};

struct Library {
  SSharedLibrary file{"libcrypt.so.1"};
  decltype(crypt_rn) *hash = file.Find<decltype(crypt_rn)>("crypt_rn");
  decltype(crypt_gensalt_rn) *newSalt = file.Find<decltype(crypt_gensalt_rn)>("crypt_gensalt_rn");

  static Library const &Get() {
    static Library const library;
    return library;
  }
};

// Null for a value that is in no crypt(3) form.
CryptScheme const *CryptSchemeOf(SString const &stored) {
  auto const *const row = std::find_if(std::begin(kCryptSchemes), std::end(kCryptSchemes),
                                       [&](CryptScheme const &scheme) { return stored.HasPrefix(scheme.prefix); });
  return row != std::end(kCryptSchemes) ? row : nullptr;
}

// The crypt(3) form by the salt and costs of another one, or of a bare salt. Undefined where that can't be made: C
// strings end at a NUL, so that a password that holds one would be as good as its front.
SString Crypt(SString const &plain, SString const &setting) {
  auto *const hash = Library::Get().hash;
  if (hash == nullptr || plain.Index('\0') >= 0 || setting.Index('\0') >= 0) return SString();
  auto const work = std::make_unique<crypt_data>();
  char const *const made = hash(plain, setting, work.get(), sizeof *work);
  SString result = made != nullptr ? SString(made) : SString();
  explicit_bzero(work.get(), sizeof *work);
  return result;
}

SString NewSalt(CryptScheme const &scheme) {
  auto *const newSalt = Library::Get().newSalt;
  std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> salt;
  constexpr int kUsualCost = 0;
  if (newSalt == nullptr) return SString();
  char const *const made = newSalt(scheme.prefix, kUsualCost, nullptr, 0, salt.data(), salt.size());
  return made != nullptr ? SString(made) : SString();
}

}  // namespace

SString MakeStoredPassword(SString const &plain, SString const &scheme) {
  if (scheme.Length() == 0 || scheme.View() == kDefaultScheme) return StringCopy(plain);
  for (CryptScheme const &row : kCryptSchemes) {
    if (scheme.View() != row.name) continue;
    SString const salt = NewSalt(row);
    return salt.Defined() ? Crypt(plain, salt) : SString();
  }
  return SString();
}

bool IsStoredPassword(SString const &plain, SString const &stored) {
  if (CryptSchemeOf(stored) == nullptr) return StringComp(plain, stored) != 0;
  SString const made = Crypt(plain, stored);
  return made.Defined() && SameBytes(made.View(), stored.View());
}

SString SchemeOfStored(SString const &stored) {
  if (CryptScheme const *const scheme = CryptSchemeOf(stored)) return SString(scheme->name);
  return stored.Length() == kDefaultLength ? SString(kDefaultScheme) : SString();
}
