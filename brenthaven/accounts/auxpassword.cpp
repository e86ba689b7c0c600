#include "brenthaven/accounts/auxpassword.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

#include "brenthaven/accounts/hexadecimal.h"
#include "brenthaven/accounts/rijndael.h"
#include "brenthaven/accounts/sitekeys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char kModule[] = "AuxPassword";
constexpr int kCreate = 1;  // make what is missing, and write
constexpr std::size_t kRandomBytes = 2;
constexpr int kLongestStored = 1'000'000;  // bytes; the settings give back no value that is much longer

std::unique_ptr<Sdbfile> shared;

// The store of the process, open at its root.
Sdbfile &Store(unsigned mode) {
  if (!shared)
    shared = mode == 0 ? std::make_unique<Sdbfile>(SString(kModule), kCreate, SString(kProductWord))
                       : std::make_unique<Sdbfile>(SString("."), SString(kModule), kCreate);
  if (shared->Open("/", kCreate) == 0) {
    std::cerr << "fatal: cannot open AuxPassword" << std::endl;
    std::exit(1);
  }
  return *shared;
}

SRijndaelKey KeyOf(std::uint8_t const *random) {
  SRijndaelKey key{};
  static_assert(sitekeys::kAuxPasswordKey.size() + kRandomBytes == std::tuple_size_v<SRijndaelKey>);
  std::copy(sitekeys::kAuxPasswordKey.begin(), sitekeys::kAuxPasswordKey.end(), key.begin());
  std::copy_n(random, kRandomBytes, key.end() - kRandomBytes);
  return key;
}

// The stored text of a password; undefined if the cipher refuses.
SString Encipher(SString const &password) {
  std::size_t const length = password.View().size();
  std::size_t const padded = (length + kRijndaelBlock - 1) / kRijndaelBlock * kRijndaelBlock;
  std::vector<std::uint8_t> bytes(kRandomBytes + padded);
  for (std::size_t i = 0; i < kRandomBytes; ++i) bytes[i] = static_cast<std::uint8_t>(RandomInt(256));
  std::memcpy(bytes.data() + kRandomBytes, password.View().data(), length);
  if (!RijndaelEncipher(KeyOf(bytes.data()), bytes.data() + kRandomBytes, padded)) return SString();
  return ToHexadecimal(bytes.data(), bytes.size());
}

// The password of a stored text; undefined if that is not in our form.
SString Decipher(SString const &stored) {
  std::vector<std::uint8_t> bytes = FromHexadecimal(stored);
  if (bytes.size() <= kRandomBytes || (bytes.size() - kRandomBytes) % kRijndaelBlock != 0) return SString();
  std::uint8_t *const blocks = bytes.data() + kRandomBytes;
  std::size_t const length = bytes.size() - kRandomBytes;
  if (!RijndaelDecipher(KeyOf(bytes.data()), blocks, length)) return SString();
  return SString(reinterpret_cast<char const *>(blocks),
                 static_cast<int>(std::find(blocks, blocks + length, 0) - blocks));
}

}  // namespace

SAuxPassword::SAuxPassword() : SAuxPassword(0) {}

SAuxPassword::SAuxPassword(unsigned mode) : _mode(mode) { Store(_mode); }

SAuxPassword::~SAuxPassword() { shared.reset(); }

SString SAuxPassword::GetPassword(SString uid) {
  if (uid.Length() == 0) return SString();
  return Decipher(Store(_mode).Get(uid).Get(0));
}

unsigned SAuxPassword::SetPassword(SString uid, SString password) {
  if (uid.Length() == 0 || password.Length() == 0) return 0;
  SString const stored = Encipher(password);
  return stored.Defined() && stored.Length() <= kLongestStored && Store(_mode).Set(uid, stored) != 0;
}

unsigned SAuxPassword::DeletePassword(SString uid) { return uid.Length() > 0 && Store(_mode).DeleteValue(uid) != 0; }

unsigned SAuxPassword::SetEncKey(unsigned char *) { return 1; }
