#include "brenthaven/spool/request.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "brenthaven/net/ssocket.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/notice.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kAnswerByte[] = "0";
constexpr int kAnswerRoom = 5;  // room for more than the one byte, so that a longer datagram is told from an answer
constexpr int kLastPort = 65535;
constexpr double kLongestWait = 1e8;  // seconds

// The asker's end: a socket of this host on a port that the system chose, closed with the scope.
class AnswerSocket {
public:
  AnswerSocket() : _handle(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto *const plain = reinterpret_cast<sockaddr *>(&address);
    if (_handle >= 0 && _handle < FD_SETSIZE && bind(_handle, plain, length) == 0 &&
        getsockname(_handle, plain, &length) == 0)
      _port = ntohs(address.sin_port);
    else
      SetSocketErrorNo(errno);
  }
  AnswerSocket(AnswerSocket const &) = delete;
  AnswerSocket &operator=(AnswerSocket const &) = delete;
  ~AnswerSocket() {
    if (_handle >= 0) (void)CloseSocket(static_cast<unsigned int>(_handle));
  }

  int Port() const { return _port; }  // 0 when there is no socket to wait on

  // 1 when a datagram of exactly one byte came in time. Neither the byte nor its sender is looked at.
  int Wait(double seconds) {
    double const time = seconds > 0 ? std::min(seconds, kLongestWait) : 0;
    timeval timeout = {};
    timeout.tv_sec = static_cast<time_t>(time);
    timeout.tv_usec = std::min(static_cast<long>((time - std::floor(time)) * 1e6), 999999L);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(_handle, &readable);
    if (Select(_handle + 1, &readable, nullptr, nullptr, &timeout) <= 0) return 0;
    char answer[kAnswerRoom];
    return recvfrom(_handle, answer, sizeof answer, 0, nullptr, nullptr) == 1;
  }

private:
  int _handle;
  int _port = 0;
};

}  // namespace

SRequest::SRequest() = default;

SRequest::SRequest(SControl const &control) {
  PutFilename(control.GetFilename());
  for (SString const &key : control.Keys()) (*this)[key] = control.Get(key);
  _loaded = static_cast<int>(control.IsLoaded());
}

int SRequest::Ask(SString const &function, double timeout) {
  (*this)[kKeyFunction] = function;
  (*this)[kKeyControlType] = kTypeRequest;
  if (Get(kKeyPriority).Get(0).Length() == 0) (*this)[kKeyPriority] = kPriorityRequest;
  PutFilename(MessageIdDate() + "." + ProcessIdString());

  int answered = 0;
  {
    AnswerSocket socket;  // bound before anyone hears of the request, so that no answer comes too early
    if (socket.Port() == 0) return 0;
    (*this)[kKeyReturnPath] = SString(socket.Port());
    if (!WriteUnflushed()) return 0;
    _askedTrace = Get(kKeyTrace).Length();
    answered = Notify() && socket.Wait(timeout);
  }
  int const read = answered && Read();
  (void)RemoveMessage();  // nobody else knows the name; what can't be removed is for the operator
  return read;
}

int SRequest::Answer() {
  if (!_loaded) return 0;
  if (!WriteUnflushed()) return 0;
  int const port = PortNumber(Get(kKeyReturnPath).Get(0), kLastPort);
  if (port < 0) {
    (void)RemoveMessage();  // nobody waits for it
    return 0;
  }
  return SendDatagram(port, kAnswerByte);
}
