#include "brenthaven/net/dns.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "brenthaven/net/dnsmessage.h"
#include "brenthaven/net/nameservers.h"
#include "brenthaven/net/ssocket.h"
#include "brenthaven/net/wait.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kDnsPort = 53;
constexpr int kMostTries = 10;
constexpr timeval kRetryTimeout = {5, 0};
constexpr int kLargestReply = 2000;
constexpr int kIdLimit = 0x8000;

// A UDP socket for one query, on a port that the system chooses.
class SQuerySocket {
public:
  explicit SQuerySocket(bool strict) : _strict(strict) {}
  SQuerySocket(SQuerySocket const &) = delete;
  SQuerySocket &operator=(SQuerySocket const &) = delete;
  ~SQuerySocket() {
    if (_fd >= 0) (void)CloseSocket(static_cast<unsigned int>(_fd));
  }
  bool Open(SString const &server);
  bool Send(SString const &query) const;
  SString Receive() const;  // one datagram, after waiting for it; undefined without one

private:
  sockaddr const *_Server() const { return reinterpret_cast<sockaddr const *>(&_server); }

  bool _strict;
  int _fd = -1;
  sockaddr_in _server = {};
};

bool SQuerySocket::Open(SString const &server) {
  _server.sin_family = AF_INET;
  _server.sin_port = htons(kDnsPort);
  _server.sin_addr.s_addr = inet_addr(server);
  if (_server.sin_addr.s_addr == INADDR_NONE) return false;
  _fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in local = {};
  local.sin_family = AF_INET;
  bool const open = _fd >= 0 && bind(_fd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0 &&
                    (!_strict || connect(_fd, _Server(), sizeof _server) == 0);
  if (!open) SetSocketErrorNo(errno);
  return open;
}

bool SQuerySocket::Send(SString const &query) const {
  size_t const length = static_cast<size_t>(query.Length());
  for (;;) {
    ssize_t const sent = _strict ? send(_fd, query, length, MSG_NOSIGNAL)
                                 : sendto(_fd, query, length, MSG_NOSIGNAL, _Server(), sizeof _server);
    if (sent >= 0) return static_cast<size_t>(sent) == length;
    // On a connected socket the refusal of an earlier send comes up here; that try is spent already.
    if (errno == EINTR || errno == ECONNREFUSED) continue;
    SetSocketErrorNo(errno);
    return false;
  }
}

SString SQuerySocket::Receive() const {
  if (WaitForHandle(_fd, false, kRetryTimeout) <= 0) return SString();
  char buffer[kLargestReply];
  ssize_t got;
  do {
    got = recv(_fd, buffer, sizeof buffer, MSG_DONTWAIT);  // what select saw may have had a bad checksum
  } while (got < 0 && errno == EINTR);
  return got >= 0 ? SString(buffer, static_cast<int>(got)) : SString();
}

// The first reply that belongs to the query; undefined when all tries were spent.
SString FetchReply(SQuerySocket const &socket, SString const &query, bool strict, bool *sent) {
  for (int tries = 1; tries <= kMostTries; ++tries) {
    *sent = socket.Send(query);
    if (!*sent) return SString();
    SString const reply = socket.Receive();
    if (!IsReplyTo(query, reply) || (strict && !RepeatsQuestion(query, reply))) continue;
    // A reply to the last try counts as none: who answers that late is asked no further.
    return tries < kMostTries ? reply : SString();
  }
  return SString();
}

// Whether a name out of a reply can stand in a result line, whose words are separated by blanks.
bool IsPrintableName(SString const &name) {
  for (char c : name.View())
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F) return false;
  return true;
}

// Fills in addresses for exchanges that came without any; false when a lookup failed hard.
bool LookUpMissing(SMxReply *reply) {
  for (auto const &[preference, names] : reply->exchanges)
    for (SString const &name : names) {
      auto const [place, is_new] = reply->quads.try_emplace(std::string(name.View()));
      if (!is_new || !IsPrintableName(name)) continue;
      SStringList addresses;
      if (GetHostByName(name, &addresses) == kHostLookupFailed) return false;
      for (SString const &address : addresses) place->second.push_back(address);
    }
  return true;
}

void ListExchanges(SMxReply const &reply, SStringList *result) {
  result->Define();
  for (auto const &[preference, names] : reply.exchanges)
    for (SString const &name : names) {
      if (!IsPrintableName(name)) continue;
      char digits[16];
      (void)snprintf(digits, sizeof digits, "%.5d", preference);
      for (SString const &quad : reply.quads.at(std::string(name.View())))
        (void)result->Push(SString(digits) + " " + name + " [" + quad + "]");
    }
}

}  // namespace

int _DoMxQuery(SString const &server, SString const &name, SStringList *result) {
  bool const strict = GetEnv("DnsStrict") == "yes";
  if (strict && !IsSendableName(name)) return kMxFailed;
  SString const query = MakeMxQuery(RandomInt(kIdLimit), name);
  SString bytes;
  {
    SQuerySocket socket(strict);
    bool sent = false;
    if (!socket.Open(server)) return kMxFailed;
    bytes = FetchReply(socket, query, strict, &sent);
    if (!sent) return kMxFailed;
    if (!bytes.Defined()) return kMxNoReply;
  }
  SMxReply reply = ParseMxReply(bytes);
  if (reply.code == kDnsNameError) return kMxNoName;
  if (reply.code != kDnsNoError) return kMxFailed;
  if (reply.answers == 0 || reply.exchanges.empty()) return kMxNoRecords;
  if (!LookUpMissing(&reply)) return kMxFailed;
  ListExchanges(reply, result);
  return kMxFound;
}

int MxQuery(SString const &name, SStringList *result) {
  if (name.Length() == 0) return kMxFailed;
  result->Undef();
  bool is_set = false;
  int code = kMxFailed;
  for (char const *setting : {"InternalMxServerIP", "ExternalMxServerIP"}) {
    SString const server = GetEnv(setting);
    if (server.Length() == 0) continue;
    is_set = true;
    code = _DoMxQuery(server, name, result);
    if (code == kMxFound) return code;
  }
  if (is_set) return code;
  for (SString const &server : GetNameServers()) {
    code = _DoMxQuery(server, name, result);
    if (code == kMxFound || code == kMxNoName || code == kMxNoRecords) return code;
  }
  return code;
}
