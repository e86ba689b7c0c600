#include "brenthaven/directory/ldap.h"

#include <ldap.h>
#include <netdb.h>
#include <sasl/sasl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <chrono>
#include <string_view>

#include "brenthaven/directory/escape.h"
#include "brenthaven/directory/ldaplibrary.h"
#include "brenthaven/directory/timedsocket.h"
#include "brenthaven/text/sstringlist.h"

namespace {

// How many addresses a name has; 1 for one that has none, which the connect finds out.
int CountAddresses(SString const &host) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(host, nullptr, &wanted, &found) != 0) return 1;
  int count = 0;
  for (addrinfo const *each = found; each != nullptr; each = each->ai_next) ++count;
  freeaddrinfo(found);
  return std::max(count, 1);
}

// Challenges that do not show the password, the best first.
constexpr char const *kMechanisms[] = {"SCRAM-SHA-512", "SCRAM-SHA-256", "SCRAM-SHA-1", "DIGEST-MD5"};

// Where systems keep the certificates of the authorities that they trust.
constexpr char const *kSystemAuthorities[] = {"/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt",
                                              "/etc/ssl/cert.pem"};

// What turns an option on: any address. LDAP_OPT_ON is one inside the library, which is not linked.
constexpr int kAnything = 0;
constexpr void const *kOptionOn = &kAnything;

struct Login {
  SString name, password;
};

// Answers what a mechanism asks: who one is, the password, and of the realms the one that the server proposes.
int AnswerChallenge(LDAP *, unsigned, void *defaults, void *questions) {
  auto const &login = *static_cast<Login const *>(defaults);
  for (auto *item = static_cast<sasl_interact_t *>(questions); item->id != SASL_CB_LIST_END; ++item) {
    std::string_view answer;
    if (item->id == SASL_CB_AUTHNAME) answer = login.name.View();
    if (item->id == SASL_CB_PASS) answer = login.password.View();
    if (item->id == SASL_CB_GETREALM && item->defresult != nullptr) answer = item->defresult;
    item->result = answer.empty() ? "" : answer.data();
    item->len = static_cast<unsigned>(answer.size());
  }
  return LDAP_SUCCESS;
}

bool IsHostName(std::string_view host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](unsigned char c) {
    return c < 0x80 && (std::isalnum(c) || c == '-' || c == '.' || c == '_');
  });
}

bool IsBracketedAddress(std::string_view host) {
  return host.size() > 2 && host.front() == '[' && host.back() == ']' &&
         host.find_first_not_of("0123456789abcdefABCDEF:.", 1) == host.size() - 1;
}

bool IsPort(std::string_view port) {
  constexpr int kHighest = 65535, kDigits = 5;
  if (port.empty() || port.size() > kDigits || port.find_first_not_of("0123456789") != std::string_view::npos)
    return false;
  int number = 0;
  for (char const c : port) number = 10 * number + (c - '0');
  return number >= 1 && number <= kHighest;
}

char const *AuthoritiesOfSystem() {
  for (char const *path : kSystemAuthorities)
    if (access(path, R_OK) == 0) return path;
  return nullptr;
}

}  // namespace

bool SLdapUrl::Parse(SString const &text) {
  constexpr std::string_view kClearScheme = "ldap://", kTlsScheme = "ldaps://";
  SString const lowered = LowerCase(text);
  bool const tls = lowered.View().starts_with(kTlsScheme);
  if (!tls && !lowered.View().starts_with(kClearScheme)) return false;
  std::string_view const rest = text.View().substr(tls ? kTlsScheme.size() : kClearScheme.size());
  std::string_view const authority = rest.substr(0, rest.find('/'));
  std::size_t const bracket = authority.find(']');
  std::size_t const colon = authority.find(':', bracket == std::string_view::npos ? 0 : bracket);
  std::string_view const name = authority.substr(0, colon);
  if (!IsHostName(name) && !IsBracketedAddress(name)) return false;
  if (colon != std::string_view::npos && !IsPort(authority.substr(colon + 1))) return false;
  transport = tls ? SLdapTransport::kTls : SLdapTransport::kClear;
  host = SString(name);
  port = colon != std::string_view::npos ? SString(authority.substr(colon + 1)) : SString();
  base = SString(authority.size() < rest.size() ? rest.substr(authority.size() + 1) : "");
  return true;
}

struct SLdap::Connection {
  SLdapLibrary const *library;
  STimedSocket socket;
  LDAP *handle = nullptr;
  bool tls = false;

  Connection(SLdapLibrary const *loaded, STimedSocket::Clock::time_point deadline)
      : library(loaded), socket(*loaded, deadline) {}
  Connection(Connection const &) = delete;
  Connection &operator=(Connection const &) = delete;
  ~Connection() {
    if (handle != nullptr) (void)library->ldap_unbind_ext_s(handle, nullptr, nullptr);  // a courtesy to the server
  }

  bool Set(int option, void const *value) const {
    return library->ldap_set_option(handle, option, value) == LDAP_OPT_SUCCESS;
  }
  bool SetNumber(int option, int value) const { return Set(option, &value); }

  bool SetUp() const {
    return SetNumber(LDAP_OPT_PROTOCOL_VERSION, LDAP_VERSION3) && Set(LDAP_OPT_REFERRALS, LDAP_OPT_OFF) &&
           Set(LDAP_OPT_RESTART, kOptionOn) && SetNumber(LDAP_OPT_DEREF, LDAP_DEREF_NEVER) &&
           Set(LDAP_OPT_X_SASL_NOCANON, kOptionOn);  // no name lookup of the server's address
  }
  // Reads the authorities, so only where TLS is wanted.
  bool SetUpTls(char const *authorities) const {
    return authorities != nullptr && Set(LDAP_OPT_X_TLS_CACERTFILE, authorities) &&
           SetNumber(LDAP_OPT_X_TLS_REQUIRE_CERT, LDAP_OPT_X_TLS_DEMAND) &&
           SetNumber(LDAP_OPT_X_TLS_PROTOCOL_MIN, LDAP_OPT_X_TLS_PROTOCOL_TLS1_2) &&
           SetNumber(LDAP_OPT_X_TLS_NEWCTX, 0);
  }

  using Message = std::unique_ptr<LDAPMessage, decltype(::ldap_msgfree) *>;
  Message NewMessage() const { return {nullptr, library->ldap_msgfree}; }
  // A search for one entry: the library's code, and what came.
  int Search(char const *base, int scope, char const *filter, char const *attribute, Message &found) const {
    char *attributes[] = {const_cast<char *>(attribute), nullptr};
    LDAPMessage *messages = nullptr;
    int const code =
        library->ldap_search_ext_s(handle, base, scope, filter, attributes, 0, nullptr, nullptr, nullptr, 1, &messages);
    found.reset(messages);
    return code;
  }
  LDAPMessage *FirstEntry(Message const &found) const {
    return found != nullptr ? library->ldap_first_entry(handle, found.get()) : nullptr;
  }
  SStringList Values(LDAPMessage *entry, char const *attribute) const {
    SStringList values;
    berval **const read = library->ldap_get_values_len(handle, entry, attribute);
    for (berval **value = read; value != nullptr && *value != nullptr; ++value)
      values.Push(SString((*value)->bv_val, static_cast<int>((*value)->bv_len)));
    library->ldap_value_free_len(read);
    return values;
  }
  SString Name(LDAPMessage *entry) const {
    char *const dn = library->ldap_get_dn(handle, entry);
    SString name = dn != nullptr ? SString(dn) : SString();
    library->ldap_memfree(dn);
    return name;
  }

  // Gives the next step what is left of the time. False when nothing is.
  bool SetTime() const {
    auto const left = std::chrono::duration_cast<std::chrono::microseconds>(socket.Left()).count();
    if (left <= 0) return false;
    timeval const time{left / 1000000, left % 1000000};
    return Set(LDAP_OPT_TIMEOUT, &time) && Set(LDAP_OPT_NETWORK_TIMEOUT, &time);
  }

  // For the connect, in which the library gives each address of a host the whole time: they share it.
  bool ShareTime(int addresses) const {
    auto const left = std::chrono::duration_cast<std::chrono::microseconds>(socket.Left()).count() / addresses;
    timeval const time{left / 1000000, left % 1000000};
    return left > 0 && Set(LDAP_OPT_NETWORK_TIMEOUT, &time);
  }
};

SLdap::SLdap(SLdapOptions const &options) : _options(options) {}

SLdap::~SLdap() = default;

SLdapResult SLdap::_Fail(SLdapResult result, SString const &text) {
  _errorText = text;
  return result;
}

// The four codes that mean that no server had a say; every other one is the server's answer.
SLdapResult SLdap::_Classify(int code) {
  if (code == LDAP_SUCCESS) return SLdapResult::kDone;
  _errorText = _connection->library->ldap_err2string(code);
  char *detail = nullptr;
  (void)_connection->library->ldap_get_option(_connection->handle, LDAP_OPT_DIAGNOSTIC_MESSAGE, &detail);
  if (detail != nullptr && *detail != '\0') _errorText += SString(": ") + detail;
  _connection->library->ldap_memfree(detail);
  switch (code) {
    case LDAP_SERVER_DOWN:
    case LDAP_CONNECT_ERROR:
    case LDAP_TIMEOUT:
    case LDAP_UNAVAILABLE:
      return SLdapResult::kUnreachable;
    default:
      return SLdapResult::kRefused;
  }
}

bool SLdap::_PrepareStep() {
  if (_connection != nullptr && _connection->SetTime()) return true;
  _errorText = _connection != nullptr ? "no answer in time" : "not connected";
  return false;
}

SLdapResult SLdap::Open(SString const &url, SLdapTransport transport) {
  assert(_connection == nullptr);
  SLdapUrl server;
  if (!server.Parse(url)) return _Fail(SLdapResult::kUnusable, "not the address of a directory: " + url);
  SLdapLibrary const *const library = SLdapLibrary::Get();
  if (library == nullptr) return _Fail(SLdapResult::kUnusable, "the LDAP library is not there");
  auto const time = std::chrono::duration<double>(_options.timeout);
  auto connection = std::make_unique<Connection>(
      library, STimedSocket::Clock::now() + std::chrono::duration_cast<STimedSocket::Clock::duration>(time));
  connection->tls = transport == SLdapTransport::kTls || server.transport == SLdapTransport::kTls;
  SString const uri = (connection->tls ? "ldaps://" : "ldap://") + server.host +
                      (server.port.Defined() ? ":" + server.port : SString());
  if (library->ldap_initialize(&connection->handle, uri) != LDAP_SUCCESS || !connection->SetUp() ||
      !connection->socket.Attach(connection->handle))
    return _Fail(SLdapResult::kUnusable, "not the address of a directory: " + url);
  _connection = std::move(connection);
  if (_connection->tls && !_TrustAuthorities()) return SLdapResult::kUnusable;
  if (!_PrepareStep() || !_connection->ShareTime(CountAddresses(server.host))) return SLdapResult::kUnreachable;
  return _Classify(library->ldap_connect(_connection->handle));
}

bool SLdap::_TrustAuthorities() {
  char const *const path =
      _options.authorities.Length() > 0 ? static_cast<char const *>(_options.authorities) : AuthoritiesOfSystem();
  if (path != nullptr && _connection->SetUpTls(path)) return true;
  _errorText = SString("the certificates of the authorities cannot be read: ") +
               (path != nullptr ? path : "the system has none where they are looked for");
  _connection.reset();
  return false;
}

SLdapResult SLdap::StartTls() {
  if (!_PrepareStep()) return SLdapResult::kUnreachable;
  if (!_TrustAuthorities()) return SLdapResult::kUnusable;
  int const code = _connection->library->ldap_start_tls_s(_connection->handle, nullptr, nullptr);
  SLdapResult const result = _Classify(code);
  _connection->tls = result == SLdapResult::kDone;
  if (code > 0) return SLdapResult::kRefused;  // the server's answer, also where it says that its TLS is unavailable
  if (code < 0) _connection.reset();
  return result;
}

SLdapResult SLdap::BindSimple(SString const &name, SString const &password) {
  if (!IsDirectoryText(name) || password.Length() > kLongestPassword)
    return _Fail(SLdapResult::kRefused, "no name for a bind, or too long a password");
  if ((name.Length() == 0) != (password.Length() == 0))
    return _Fail(SLdapResult::kRefused, "a name without a password, or a password without a name");
  if (!_PrepareStep()) return SLdapResult::kUnreachable;
  berval credential{static_cast<ber_len_t>(password.Length()), const_cast<char *>(password.View().data())};
  return _Classify(_connection->library->ldap_sasl_bind_s(_connection->handle, name, LDAP_SASL_SIMPLE, &credential,
                                                          nullptr, nullptr, nullptr));
}

SLdapResult SLdap::BindSasl(SString const &name, SString const &password) {
  if (!IsDirectoryText(name) || password.Length() > kLongestPassword)
    return _Fail(SLdapResult::kRefused, "no name for a bind, or too long a password");
  if (name.Length() == 0 || password.Length() == 0) return _Fail(SLdapResult::kRefused, "no name or no password");
  SStringList offered;
  SLdapResult const asked = _ReadMechanisms(offered);
  if (asked == SLdapResult::kUnreachable) return asked;
  // Within TLS no second layer of protection: servers refuse it.
  char const *const properties = _connection->tls ? "noanonymous,noplain,maxssf=0" : "noanonymous,noplain";
  if (!_connection->Set(LDAP_OPT_X_SASL_SECPROPS, properties))
    return _Fail(SLdapResult::kUnusable, "no SASL on this machine");
  Login login{name, password};
  for (char const *mechanism : kMechanisms) {
    if (!offered.Contains(mechanism)) continue;
    if (!_PrepareStep()) return SLdapResult::kUnreachable;
    int const code = _connection->library->ldap_sasl_interactive_bind_s(
        _connection->handle, nullptr, mechanism, nullptr, nullptr, LDAP_SASL_QUIET, AnswerChallenge, &login);
    if (code != LDAP_AUTH_UNKNOWN) return _Classify(code);  // else this machine lacks it, and nothing was sent
  }
  return _Fail(SLdapResult::kUnusable, "no SASL mechanism in common with the server");
}

// What the server offers stands in the entry without a name (RFC 4512 section 5.1), which anybody may read.
SLdapResult SLdap::_ReadMechanisms(SStringList &mechanisms) {
  constexpr char kAttribute[] = "supportedSASLMechanisms";
  if (!_PrepareStep()) return SLdapResult::kUnreachable;
  Connection::Message found = _connection->NewMessage();
  int const code = _connection->Search("", LDAP_SCOPE_BASE, "(objectClass=*)", kAttribute, found);
  LDAPMessage *const entry = _connection->FirstEntry(found);
  if (entry != nullptr) mechanisms = _connection->Values(entry, kAttribute);
  return _Classify(code);
}

SLdapResult SLdap::FindFirst(SString const &base, SString const &filter, SString const &attribute, SLdapEntry &entry) {
  entry = SLdapEntry();
  if (!IsDirectoryText(base) || !IsDirectoryText(filter) || !IsDirectoryText(attribute))
    return _Fail(SLdapResult::kRefused, "the search is no text");
  if (!_PrepareStep()) return SLdapResult::kUnreachable;
  Connection::Message found = _connection->NewMessage();
  int const code = _connection->Search(base, LDAP_SCOPE_SUBTREE, filter, attribute, found);
  if (code != LDAP_SUCCESS && code != LDAP_SIZELIMIT_EXCEEDED) return _Classify(code);
  if (LDAPMessage *const first = _connection->FirstEntry(found)) {
    entry.dn = _connection->Name(first);
    entry.value = _connection->Values(first, attribute).Get(0);
  }
  return SLdapResult::kDone;
}
