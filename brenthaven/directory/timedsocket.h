// brenthaven/directory/timedsocket.h - the bottom of a connection, which ends with the connection's time. Private to
// the directory folder.
#pragma once
#include <chrono>

#include "brenthaven/directory/ldaplibrary.h"

// Stands between the socket and everything above it, TLS included, and gives no read or write more time than the
// connection has left. The library's own time-outs cover the wait for an answer and not what happens inside one: a peer
// that goes silent in the middle of a message or of a TLS handshake would keep it for ever, and that handshake even
// asks again at full speed. It also keeps a peer that hung up from killing the process by a signal, and one that claims
// to send more than a directory has to say from getting the room for it.
class STimedSocket {
public:
  using Clock = std::chrono::steady_clock;

  STimedSocket(SLdapLibrary const &library, Clock::time_point deadline);
  STimedSocket(STimedSocket const &) = delete;
  STimedSocket &operator=(STimedSocket const &) = delete;

  // Puts this under every connection that the handle opens from now on. Must outlive the handle. False when the library
  // refuses.
  bool Attach(LDAP *handle);
  // Time that is left; 0 or less: none.
  Clock::duration Left() const { return _deadline - Clock::now(); }

  // For the library: at most so many bytes, once some can be read or written. -1 with errno, ETIMEDOUT when the time is
  // up.
  ber_slen_t Read(void *bytes, ber_len_t count) const;
  ber_slen_t Write(void const *bytes, ber_len_t count) const;

private:
  static int _OnConnect(LDAP *handle, Sockbuf *connection, LDAPURLDesc *server, sockaddr *address,
                        ldap_conncb *callback);
  bool _WaitFor(short events) const;

  SLdapLibrary const &_library;
  Clock::time_point _deadline;
  ldap_conncb _callback;
  int _fd = -1;
};
