// brenthaven/directory/ldap.h - the client's side of LDAP (RFC 4511), as far as mail needs it: connect, bind, and find
// one entry.
//
// The protocol library is loaded by the first Open of the process, not before: it takes milliseconds. Nothing but what
// is said here decides what happens on the wire: neither a user's ldaprc, nor the system's ldap.conf, nor LDAP
// variables of the environment are read. Referrals are not followed, so that a password goes to no other server than
// the one named.
#pragma once
#include <memory>

#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// How a step ended.
enum class SLdapResult {
  kDone,
  kRefused,      // the server answered, but not with success; or what was to be sent is never sent (an empty password)
  kUnreachable,  // no connection, no answer in time, a server that says it is unavailable, or no trust in its
                 // certificate
  kUnusable,     // nothing could be asked: no protocol library, no address of a server, or nothing in common with it
};

enum class SLdapTransport {
  kClear,
  kTls,  // LDAP inside TLS from the first byte ("ldaps"), or not at all
};

struct SLdapOptions {
  double timeout = 10;  // seconds that a connection has, from Open on, for all its steps together
  SString authorities;  // path of the certificates (PEM) of the authorities to trust; empty: those of the system
};

// Parts of "LDAP://host:port/base", the form in which a server is named. The scheme is read without regard to case and
// may be "LDAPS"; an IPv6 address stands in brackets. All but the host may be missing. Nothing is percent-encoded.
struct SLdapUrl {
  SLdapTransport transport = SLdapTransport::kClear;
  SString host;
  SString port;  // decimal, 1 to 65535; undefined: the usual one of the transport
  SString base;  // a DN

  // False when the text does not have that form.
  bool Parse(SString const &text);
};

struct SLdapEntry {
  SString dn;     // undefined: there is no such entry
  SString value;  // first value of the attribute asked for; undefined when the entry has none
};

// One connection. Text is sent as it is given: names and filters are escaped with escape.h by whoever puts them
// together, and checked there to be UTF-8. Not to be shared by threads.
class SLdap {
public:
  explicit SLdap(SLdapOptions const &options);
  ~SLdap();  // unbinds and closes
  SLdap(SLdap const &) = delete;
  SLdap &operator=(SLdap const &) = delete;

  // Connects. With kTls, or a url whose scheme is "LDAPS", the server's certificate must name the host of the url and
  // be signed by one of the authorities. Once an object.
  SLdapResult Open(SString const &url, SLdapTransport transport);
  // Turns a clear connection into one with TLS, with the same checks. kRefused: the server offers no TLS, and the
  // connection is as before. Any other failure ends the connection, since somebody may stand in between.
  SLdapResult StartTls();

  // Binds. With an empty name and password the simple bind is an anonymous one; a name without a password, which many
  // servers take for anonymous and answer with success, is refused without asking, as is a password of more than
  // kLongestPassword bytes.
  SLdapResult BindSimple(SString const &name, SString const &password);
  // Binds by a challenge that does not show the password: the first of SCRAM-SHA-512, SCRAM-SHA-256, SCRAM-SHA-1 and
  // DIGEST-MD5 that server and this machine have in common, and never by anything weaker. kUnusable: they have none. A
  // Kerberos ticket (GSSAPI) is not among them: it would be this process's, and say nothing about the password.
  SLdapResult BindSasl(SString const &name, SString const &password);

  // The first entry at or below a base that a filter (RFC 4515) matches, in the server's order, with one attribute of
  // it. kDone also when there is none.
  SLdapResult FindFirst(SString const &base, SString const &filter, SString const &attribute, SLdapEntry &entry);

  // What the last failed step met, in words for a person; never a secret.
  SString const &ErrorText() const { return _errorText; }

  static constexpr int kLongestPassword = 4096;  // bytes

private:
  struct Connection;  // the library's handle, and when its time is up
  SLdapResult _Fail(SLdapResult result, SString const &text);
  SLdapResult _Classify(int code);
  bool _TrustAuthorities();
  bool _PrepareStep();
  SLdapResult _ReadMechanisms(SStringList &mechanisms);

  SLdapOptions _options;
  std::unique_ptr<Connection> _connection;
  SString _errorText;
};
