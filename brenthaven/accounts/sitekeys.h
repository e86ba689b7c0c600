// brenthaven/accounts/sitekeys.h - the constants that stored passwords and keys in mail depend on.
//
// Note for packagers. These values are part of the format of an installation's password data: a build with other values
// can neither verify its hashes nor decipher its auxiliary passwords, and takes no answer to a list's mail that an
// earlier build has sent. So they stay the same from release to release, and on all machines of one site. Whoever wants
// values of their own writes a header with the part below between #else and #endif and other values in it, builds with
//
//   cmake -DBRENTHAVEN_SITEKEYS=/path/to/that/header.h ...
//
// before the first account is made, and keeps that header with the source. They are no protection against someone who
// has both the program and the stores.
#pragma once
#ifdef BRENTHAVEN_SITEKEYS
#include BRENTHAVEN_SITEKEYS
#else
#include <array>
#include <cstdint>

namespace sitekeys {

// The fixed start of every key of the auxiliary store; two random bytes of the value complete it to 16.
inline constexpr std::array<std::uint8_t, 14> kAuxPasswordKey = {0x9c, 0x3e, 0x51, 0xd7, 0x08, 0xb2, 0x6f,
                                                                 0xe4, 0x1d, 0x83, 0x7a, 0x25, 0xc6, 0x4b};

// Stand between salt and password, and between password and salt, in the text of which a password hash is made.
inline constexpr char kBeforePassword = 0x1e;
inline constexpr char kBehindPassword = 0x1f;

// Stands behind a text whose digest is a key (MD5Secret).
inline constexpr char kSecretSuffix[] = "q7Lw-0zTn.Vb4e_Rk2y";

// Combined with each byte of a scrambled text. DEL: no printable byte becomes a NUL, which the account
// store could not hold, and a text that begins with a small letter is told from a scrambled one.
inline constexpr char kScramble = 0x7f;

}  // namespace sitekeys
#endif
