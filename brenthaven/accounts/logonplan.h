// brenthaven/accounts/logonplan.h - by what method an account's password is verified, and with what.
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/text/sstring.h"

enum class SLogonMethod {
  kStoredHash,
  kSystemLogon,
  kActiveDirectory,
  kOwnDirectory,        // the LDAP server that the account names
  kReferenceDirectory,  // an entry found by the settings of LDAP-Reference
};

// How a name and a password are shown to a directory, and how the way there is kept. The flags of SAccount::LdapAuth.
enum SLdapAuthFlag : int {
  kLdapSimple = 0,         // as a simple bind
  kLdapSasl = 1,           // by a challenge, never less
  kLdapUserPrincipal = 3,  // Active Directory: within TLS as a simple bind, else by a challenge
};
enum SLdapSecureFlag : int { kLdapClear = 0, kLdapTls = 2 };

// What SAccount::LdapAuth gives.
enum SBindResult : int {
  kBound = 1,
  kBindNoText = 2,  // a text is not UTF-8 or holds a NUL
  kBindRefused = 3,
  kBindUnreachable = 4,  // the one result after which another server is asked
};

// All that is needed to verify the account's password, but the password. Texts are filled in as they will be used.
struct SLogonPlan {
  SLogonMethod method = SLogonMethod::kStoredHash;
  bool usable = true;           // false: no password is right, whatever it is; error says why
  int error = 0;                // SPasswordError
  SString user;                 // logon id; user principal; name to bind as
  SString url;                  // the directory: "LDAP://host:port", with "/base" for a reference directory
  SString secondUrl;            // undefined: none
  int authFlag = kLdapSimple;   // SLdapAuthFlag
  int secureFlag = kLdapClear;  // SLdapSecureFlag
  SString filter;               // reference directory: how the entry is found
  SString readerDN;             // and as whom
  SString readerPassword;       // secret
  SString storedPassword;       // the hash; secret
};

// The plan for an account as it stands. Reads attributes and settings, and asks nobody. `external` allows the two
// methods that ask a directory.
SLogonPlan PlanLogon(SAccount const &account, int external);

// The method's name, as Logon-Auth-Method has it: "AccountDB", "NTLM", "ActiveDirectory", "LDAP".
char const *LogonMethodName(SLogonMethod method);
