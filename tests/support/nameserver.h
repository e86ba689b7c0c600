// tests/support/nameserver.h - name servers on port 53 of loopback addresses, and a machine that asks them.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/dnsbytes.h"

// A name server on port 53 of a loopback address, in a thread. It answers each query with what the handler makes of it
// and of its number, from 1.
class SNameServer {
public:
  using Handler = std::function<std::vector<std::string>(std::string const &query, int number)>;

  SNameServer(char const *address, Handler handler) : _handler(std::move(handler)) {
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(53);
    local.sin_addr.s_addr = inet_addr(address);
    _fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (pipe(_stop) != 0) abort();
    running = bind(_fd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0;
    if (running) _thread = std::thread([this] { _Serve(); });
  }
  SNameServer(SNameServer const &) = delete;
  SNameServer &operator=(SNameServer const &) = delete;
  ~SNameServer() { Stop(); }

  void Stop() {
    (void)close(std::exchange(_stop[1], -1));
    if (_thread.joinable()) _thread.join();
    (void)close(std::exchange(_fd, -1));
  }

  bool running;
  std::vector<std::string> queries;  // to be read after Stop
  std::vector<int> ports;            // where they came from

private:
  void _Serve() {
    for (;;) {
      struct pollfd entries[] = {{_fd, POLLIN, 0}, {_stop[0], POLLIN, 0}};
      if (poll(entries, 2, -1) < 0 || entries[1].revents != 0) return;
      char bytes[2000];
      struct sockaddr_in peer;
      socklen_t length = sizeof peer;
      ssize_t const got = recvfrom(_fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&peer), &length);
      if (got < 2) continue;
      queries.emplace_back(bytes, static_cast<size_t>(got));
      ports.push_back(ntohs(peer.sin_port));
      for (std::string const &reply : _handler(queries.back(), static_cast<int>(queries.size())))
        (void)sendto(_fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&peer), length);
    }
  }

  Handler _handler;
  int _fd = -1;
  int _stop[2];
  std::thread _thread;
};

// The reply with the query's ID.
inline std::string Answer(std::string const &query, std::string reply) {
  return reply.replace(0, 2, query.substr(0, 2));
}

// What a server knows; a name of which it knows nothing does not exist. Use it as a handler.
class Zone {
public:
  Zone &Address(std::string const &name, std::string const &quad) { return _Add(name, 1, _Quad(quad)); }
  Zone &Exchange(std::string const &name, std::string const &exchange) {
    return _Add(name, 15, DnsNumber(10) + DnsName(exchange));
  }
  Zone &Pointer(std::string const &reversedQuad, std::string const &name) {
    return _Add(reversedQuad + ".in-addr.arpa", 12, DnsName(name));
  }

  std::vector<std::string> operator()(std::string const &query, int) const {
    constexpr size_t kHeader = 12;
    std::string const name = QuestionName(query);
    size_t const end = kHeader + DnsName(name).size();
    std::string answers;
    int count = 0;
    auto const known = _records.find(name);
    if (known != _records.end())
      for (auto const &[type, data] : known->second)
        if (DnsNumber(type) == query.substr(end, 2)) {
          answers += DnsRecord("\xC0\x0C", type, data);
          ++count;
        }
    int const code = known == _records.end() ? 3 : 0;
    return {Answer(query, DnsHeader({1, count, 0, 0}, code) + query.substr(kHeader, end + 4 - kHeader) + answers)};
  }

  static std::string QuestionName(std::string const &query) {
    std::string name;
    for (size_t at = 12; at < query.size() && query[at] != 0; at += static_cast<size_t>(query[at]) + 1)
      name += (name.empty() ? "" : ".") + query.substr(at + 1, static_cast<size_t>(query[at]));
    return name;
  }

private:
  static std::string _Quad(std::string const &quad) {
    in_addr_t const bytes = inet_addr(quad.c_str());
    return {reinterpret_cast<char const *>(&bytes), sizeof bytes};
  }
  Zone &_Add(std::string const &name, int type, std::string const &data) {
    _records[name].emplace_back(type, data);
    return *this;
  }

  std::map<std::string, std::vector<std::pair<int, std::string>>> _records;
};

// The system's resolver asks this server alone from now on, in this thread: one second, two tries.
inline void PointResolverAt(char const *address) {
  if (res_init() != 0) abort();
  _res.nscount = 1;
  _res.nsaddr_list[0].sin_family = AF_INET;
  _res.nsaddr_list[0].sin_port = htons(53);
  _res.nsaddr_list[0].sin_addr.s_addr = inet_addr(address);
  _res.retrans = 1;
  _res.retry = 2;
  _res.options &= ~static_cast<unsigned long>(RES_DNSRCH | RES_DEFNAMES);
}

// Each case has a loopback address of its own, so that all of them can run at once.
#define START_SERVER(server, address, ...)  \
  SNameServer server(address, __VA_ARGS__); \
  if (!server.running) GTEST_SKIP() << "port 53 of " address " is not for us"
