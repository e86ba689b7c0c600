// brenthaven/accounts/rijndael.h - the block cipher of the auxiliary password store.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kRijndaelBlock = 16;
using SRijndaelKey = std::array<std::uint8_t, 16>;

// Enciphers or deciphers `length` bytes in place, a whole number of blocks, each on its own. False if the cipher
// refuses; the bytes are then worthless.
bool RijndaelEncipher(SRijndaelKey const &key, std::uint8_t *bytes, std::size_t length);
bool RijndaelDecipher(SRijndaelKey const &key, std::uint8_t *bytes, std::size_t length);
