#include "brenthaven/spool/notice.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "brenthaven/net/ssocket.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

// One more than the greatest port there is: it passes here and wraps to port 0, where nothing can be sent.
constexpr int kLastDispatchPort = 65536;

}  // namespace

int PortNumber(SString const &text, int last) {
  float const number = text.AsReal();
  if (!(number >= 1 && number < static_cast<float>(last) + 1)) return -1;  // so written that no number fails too
  return static_cast<int>(number);
}

SString ComposeNotice(SControl const &control) {
  SString const key = GetEnv("DispatchKey");
  if (key.Length() == 0) return SString();
  SStringList const fields = {control.GetFilename(), key, control.Get(kKeyFunction).Get(0),
                              control.Get(kKeyControlType).Get(0), control.Get(kKeyPriority).Get(0)};
  for (SString const &field : fields)
    if (field.Index('\n') >= 0) return SString();  // what stands behind it would be taken for the next field
  return fields.Join("\n");
}

int SendNotice(SString const &notice) {
  int const port = PortNumber(GetEnv("DispatchSocket"), kLastDispatchPort);
  if (port < 0 || !notice.Defined()) return 0;
  return SendDatagram(port, notice);
}

int SendDatagram(int port, SString const &text) {
  int const error = errno;  // what fails here is told as a socket error alone
  int const handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ssize_t const sent = sendto(handle, static_cast<char const *>(text), static_cast<size_t>(text.Length()), 0,
                              reinterpret_cast<sockaddr *>(&address), sizeof address);
  if (sent < 0) SetSocketErrorNo(errno);
  if (handle >= 0) (void)CloseSocket(static_cast<unsigned int>(handle));  // a datagram is gone or not by now
  errno = error;
  return sent == text.Length();
}
