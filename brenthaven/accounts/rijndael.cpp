// The one source that sees the cipher library: what it throws ends here.
#include "brenthaven/accounts/rijndael.h"

#include <crypto++/modes.h>
#include <crypto++/rijndael.h>

#include <exception>

namespace {

template <class Mode>
bool Process(SRijndaelKey const &key, std::uint8_t *bytes, std::size_t length) {
  if (length % kRijndaelBlock != 0) return false;  // the library drops the rest without a word
  try {
    Mode cipher(key.data(), key.size());
    cipher.ProcessData(bytes, bytes, length);
    return true;
  } catch (std::exception const &) {
    return false;
  }
}

}  // namespace

bool RijndaelEncipher(SRijndaelKey const &key, std::uint8_t *bytes, std::size_t length) {
  return Process<CryptoPP::ECB_Mode<CryptoPP::Rijndael>::Encryption>(key, bytes, length);
}

bool RijndaelDecipher(SRijndaelKey const &key, std::uint8_t *bytes, std::size_t length) {
  return Process<CryptoPP::ECB_Mode<CryptoPP::Rijndael>::Decryption>(key, bytes, length);
}
