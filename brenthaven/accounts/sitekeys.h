// brenthaven/accounts/sitekeys.h - the constants that stored passwords depend on.
//
// Note for packagers. These values are part of the format of an installation's password data: a build with other values
// can neither verify its hashes nor decipher its auxiliary passwords, so they stay the same from release to release and
// from machine to machine of one site. Whoever wants values of their own changes them here, and nowhere else, before
// the first account is made, and keeps them with the source. They are no protection against someone who has both the
// program and the stores.
#pragma once
#include <array>
#include <cstdint>

namespace sitekeys {

// The fixed start of every key of the auxiliary store; two random bytes of the value complete it to 16.
inline constexpr std::array<std::uint8_t, 14> kAuxPasswordKey = {0x9c, 0x3e, 0x51, 0xd7, 0x08, 0xb2, 0x6f,
                                                                 0xe4, 0x1d, 0x83, 0x7a, 0x25, 0xc6, 0x4b};

// Stand between salt and password, and between password and salt, in the text of which a password hash is made.
inline constexpr char kBeforePassword = 0x1e;
inline constexpr char kBehindPassword = 0x1f;

// Combined with each byte of a scrambled text. DEL: no byte of ASCII or UTF-8 text becomes a NUL, which the account
// store could not hold, and a text that begins with a small letter is told from a scrambled one.
inline constexpr char kScramble = 0x7f;

}  // namespace sitekeys
