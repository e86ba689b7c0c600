// brenthaven/directory/ldaplibrary.h - the protocol library, loaded on first use. Private to the directory folder.
#pragma once
#include <ldap.h>

#include "brenthaven/platform/sharedlibrary.h"

class SLdapLibrary {
public:
  // Null when the library, or one of the functions, is not there.
  static SLdapLibrary const *Get();

private:
  SLdapLibrary();
  void _StartWithoutFiles();

  template <class Function>
  Function *_Find(char const *name) {
    auto *const function = _file.Find<Function>(name);
    if (function == nullptr) _complete = false;
    return function;
  }

  SSharedLibrary _file;
  bool _complete = true;

public:
#define LDAP_FUNCTION(name) decltype(::name) *const name = _Find<decltype(::name)>(#name)
  LDAP_FUNCTION(ldap_initialize);
  LDAP_FUNCTION(ldap_set_option);
  LDAP_FUNCTION(ldap_get_option);
  LDAP_FUNCTION(ldap_connect);
  LDAP_FUNCTION(ldap_start_tls_s);
  LDAP_FUNCTION(ldap_sasl_bind_s);
  LDAP_FUNCTION(ldap_sasl_interactive_bind_s);
  LDAP_FUNCTION(ldap_search_ext_s);
  LDAP_FUNCTION(ldap_first_entry);
  LDAP_FUNCTION(ldap_get_dn);
  LDAP_FUNCTION(ldap_get_values_len);
  LDAP_FUNCTION(ldap_value_free_len);
  LDAP_FUNCTION(ldap_memfree);
  LDAP_FUNCTION(ldap_msgfree);
  LDAP_FUNCTION(ldap_err2string);
  LDAP_FUNCTION(ldap_unbind_ext_s);
  LDAP_FUNCTION(ber_sockbuf_add_io);
  LDAP_FUNCTION(ber_sockbuf_ctrl);
#undef LDAP_FUNCTION
};
