// brenthaven/accounts/auxpassword.h - passwords in a form that can be read back.
#pragma once
#include "brenthaven/text/sstring.h"

// Beside the hash of an account's password a copy is kept that protocols with a challenge can decipher: one value per
// account, named by its UID, at the root of the configuration module AuxPassword. Its one item is hexadecimal text of
//
//   offset  size     meaning
//   0       2        random bytes, the end of this value's key
//   2       16 each  Rijndael blocks of the password, each on its own, the last one padded with NUL bytes
//
// All objects of a process share one open store: the first one opens it, the end of any of them closes it, and the next
// operation opens it again. A process that cannot make the store writes "fatal: cannot open AuxPassword" to the error
// stream and exits with 1, since an account whose password is only half stored would lock its owner out of some
// protocols.
class SAuxPassword {
public:
  SAuxPassword();
  explicit SAuxPassword(unsigned mode);  // other than 0: the store of the product ".", apart from the installation's
  ~SAuxPassword();
  SAuxPassword(SAuxPassword const &) = delete;
  SAuxPassword &operator=(SAuxPassword const &) = delete;

  // The password, up to its first NUL byte; undefined for an empty UID, for one without a value, and for a value that
  // is not in the form above.
  SString GetPassword(SString uid);
  // 1 when stored; 0 for an empty UID or password, for a password of half a million bytes, which could not be read
  // back, and when the store refuses.
  unsigned SetPassword(SString uid, SString password);
  // 1 when there was a value and it is gone.
  unsigned DeletePassword(SString uid);
  // Always 1, and without effect: the key of a value comes from the build and from the value alone.
  unsigned SetEncKey(unsigned char *key);

private:
  unsigned _mode;
};
