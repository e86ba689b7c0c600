#include "brenthaven/directory/timedsocket.h"

#include <lber.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace {

STimedSocket *SocketOf(Sockbuf_IO_Desc *layer) { return static_cast<STimedSocket *>(layer->sbiod_pvt); }

// The layer, in the form in which the library takes one.
int SetUp(Sockbuf_IO_Desc *layer, void *socket) {
  layer->sbiod_pvt = socket;
  return 0;
}
int Remove(Sockbuf_IO_Desc *layer) {
  layer->sbiod_pvt = nullptr;
  return 0;
}
int Control(Sockbuf_IO_Desc *layer, int option, void *argument) {
  return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}
ber_slen_t Read(Sockbuf_IO_Desc *layer, void *bytes, ber_len_t count) { return SocketOf(layer)->Read(bytes, count); }
ber_slen_t Write(Sockbuf_IO_Desc *layer, void *bytes, ber_len_t count) { return SocketOf(layer)->Write(bytes, count); }
int Close(Sockbuf_IO_Desc *) { return 0; }

constinit Sockbuf_IO layer = {SetUp, Remove, Control, Read, Write, Close};

// Above the socket, which the library adds itself, and below TLS.
constexpr int kLevel = (LBER_SBIOD_LEVEL_PROVIDER + LBER_SBIOD_LEVEL_TRANSPORT) / 2;

// Bytes of one message from a server. The library makes room for as many as a message claims to have, which may be 4
// GiB and more; those that are asked for here are small.
constexpr ber_len_t kLargestMessage = 4 << 20;

void OnDisconnect(LDAP *, Sockbuf *, ldap_conncb *) {}

}  // namespace

STimedSocket::STimedSocket(SLdapLibrary const &library, Clock::time_point deadline)
    : _library(library), _deadline(deadline), _callback{_OnConnect, OnDisconnect, this} {}

bool STimedSocket::Attach(LDAP *handle) {
  return _library.ldap_set_option(handle, LDAP_OPT_CONNECT_CB, &_callback) == LDAP_OPT_SUCCESS;
}

int STimedSocket::_OnConnect(LDAP *, Sockbuf *connection, LDAPURLDesc *, sockaddr *, ldap_conncb *callback) {
  auto *const self = static_cast<STimedSocket *>(callback->lc_arg);
  (void)self->_library.ber_sockbuf_ctrl(connection, LBER_SB_OPT_GET_FD, &self->_fd);  // no number: every read fails
  ber_len_t largest = kLargestMessage;
  if (self->_library.ber_sockbuf_ctrl(connection, LBER_SB_OPT_SET_MAX_INCOMING, &largest) != 1) return -1;
  return self->_library.ber_sockbuf_add_io(connection, &layer, kLevel, self);
}

bool STimedSocket::_WaitFor(short events) const {
  pollfd wanted{_fd, events, 0};
  for (;;) {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(Left()).count();
    int const ready = left > 0 ? poll(&wanted, 1, static_cast<int>(left)) : 0;
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
}

ber_slen_t STimedSocket::Read(void *bytes, ber_len_t count) const {
  return _WaitFor(POLLIN) ? recv(_fd, bytes, count, MSG_DONTWAIT) : -1;
}

ber_slen_t STimedSocket::Write(void const *bytes, ber_len_t count) const {
  return _WaitFor(POLLOUT) ? send(_fd, bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT) : -1;
}
