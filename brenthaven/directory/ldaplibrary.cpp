#include "brenthaven/directory/ldaplibrary.h"

#include <cstdlib>

namespace {

// The library whose declarations this is compiled with; its interface changes with the minor version.
#if LDAP_VENDOR_VERSION_MAJOR == 2 && LDAP_VENDOR_VERSION_MINOR == 5
constexpr char kLibraryName[] = "libldap-2.5.so.0";
#else
constexpr char kLibraryName[] = "libldap.so.2";
#endif

}  // namespace

SLdapLibrary const *SLdapLibrary::Get() {
  static SLdapLibrary const library;
  return library._complete ? &library : nullptr;
}

SLdapLibrary::SLdapLibrary() : _file(kLibraryName) {
  if (_complete) _StartWithoutFiles();
}

// The library reads ldaprc, ldap.conf and the environment with its first call, unless LDAPNOINIT is set then. What it
// took as defaults from there could turn off the checks that a connection sets up.
void SLdapLibrary::_StartWithoutFiles() {
  constexpr char kVariable[] = "LDAPNOINIT";
  bool const there = getenv(kVariable) != nullptr;
  if (!there) (void)setenv(kVariable, "1", 1);  // without memory for it nothing else would work either
  int const version = LDAP_VERSION3;
  (void)ldap_set_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);  // set again for each connection
  if (!there) (void)unsetenv(kVariable);
}
