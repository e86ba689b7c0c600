#include "brenthaven/net/ssocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "brenthaven/net/wait.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kBlockSize = 4096;
constexpr int kDefaultPacketSize = 0x400000;
constexpr int kSmallestPacketSize = 64;
constexpr timeval kDefaultTimeout = {1800, 0};
constexpr double kLongestTimeout = 0x7fffffff;  // seconds
constexpr unsigned int kNoHandle = static_cast<unsigned int>(-1);

unsigned int g_input = STDIN_FILENO;
unsigned int g_output = STDOUT_FILENO;

int DescriptorOf(unsigned int handle) { return static_cast<int>(handle); }

// Keeps the error of a failed socket call for those who report it.
template <typename Result>
Result Noted(Result result) {
  if (result < 0) SetSocketErrorNo(errno);
  return result;
}

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

// Writes to a descriptor that is no socket, with the signal of a broken pipe held back: the caller sees EPIPE.
ssize_t WriteWithoutSignal(int fd, char const *data, size_t length) {
  sigset_t pipe_signal;
  sigset_t before;
  sigset_t pending;
  (void)sigemptyset(&pipe_signal);
  (void)sigaddset(&pipe_signal, SIGPIPE);
  bool const was_pending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  if (pthread_sigmask(SIG_BLOCK, &pipe_signal, &before) != 0) return -1;
  ssize_t const wrote = write(fd, data, length);
  int const error = errno;
  if (wrote < 0 && error == EPIPE && !was_pending) {
    constexpr struct timespec kNow = {0, 0};
    while (sigtimedwait(&pipe_signal, nullptr, &kNow) < 0 && errno == EINTR) continue;
  }
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return wrote;
}

ssize_t SendBytes(int fd, char const *data, size_t length) {
  for (;;) {
    ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == ENOTSOCK) sent = WriteWithoutSignal(fd, data, length);
    if (sent >= 0 || errno != EINTR) return sent;
  }
}

// read serves sockets as well as pipes.
ssize_t ReceiveBytes(int fd, char *data, size_t length) {
  for (;;) {
    ssize_t const got = read(fd, data, length);
    if (got >= 0 || errno != EINTR) return got;
  }
}

timeval ToTimeval(double seconds) {
  if (!(seconds > 0)) return {0, 0};
  double const whole = std::floor(std::min(seconds, kLongestTimeout));
  auto const micros = std::lround((std::min(seconds, kLongestTimeout) - whole) * 1e6);
  if (micros > 999999) return {static_cast<time_t>(whole) + 1, 0};
  return {static_cast<time_t>(whole), static_cast<suseconds_t>(micros)};
}

void SetNonBlocking(unsigned int handle, int on) { (void)Noted(ioctl(DescriptorOf(handle), FIONBIO, &on)); }

SString QuadOf(int (*ask)(int, sockaddr *, socklen_t *), unsigned int handle) {
  struct sockaddr_in address = {};
  socklen_t length = sizeof address;
  char quad[INET_ADDRSTRLEN];
  if (Noted(ask(DescriptorOf(handle), reinterpret_cast<sockaddr *>(&address), &length)) != 0) return SString();
  if (address.sin_family != AF_INET) return SString();
  return SString(inet_ntop(AF_INET, &address.sin_addr, quad, sizeof quad));
}

int ConnectWaiting(int fd, sockaddr_in const &address) {
  if (connect(fd, reinterpret_cast<sockaddr const *>(&address), sizeof address) == 0) return 0;
  if (errno != EINTR) return -1;
  // The connection goes on being made: its outcome is the socket's error once it can be written.
  struct pollfd entry = {fd, POLLOUT, 0};
  while (poll(&entry, 1, -1) < 0)
    if (errno != EINTR) return -1;
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return -1;
  errno = error;
  return error == 0 ? 0 : -1;
}

}  // namespace

SSocketInit::SSocketInit() {
  g_input = static_cast<unsigned int>(fileno(stdin));
  g_output = static_cast<unsigned int>(fileno(stdout));
}

SSocket::SSocket() { Init(g_input, g_output); }

void SSocket::Init(unsigned int read, unsigned int write) {
  _read = read;
  _write = write;
  _read_timeout = kDefaultTimeout;
  _write_timeout = kDefaultTimeout;
  SetEolCRLF();
  long const packet_size = GetEnv("MaxPacketSize").AsLong();
  _packet_size = packet_size < kSmallestPacketSize ? kDefaultPacketSize
                                                   : static_cast<int>(std::min<long>(packet_size, SString::kMaxLength));
  _timed_out = 0;
  _closed = 0;
  _read_list.Undef();
  _write_list.Undef();
  _write_length = 0;
}

int SSocket::operator>>(SString &line) {
  line.Undef();
  if (_read_list.Length() < 2 && !_ReceiveLine()) return 0;
  line = _read_list.Shift();
  // The end may be another one than now, when it was set anew between receiving and reading.
  int const end_length = static_cast<int>(strlen(_line_end));
  if (line.View().ends_with(_line_end)) line = SString(line.View().substr(0, line.Length() - end_length));
  return 1;
}

int SSocket::operator>>(SStringList &lines) {
  lines.Undef();
  SString line;
  if (!(*this >> line)) return 0;
  (void)lines.Push(line);
  while (NumLinesReady() > 0 && *this >> line) (void)lines.Push(line);
  return 1;
}

int SSocket::operator<<(SString const &text) { return *this << SStringList(text); }
int SSocket::operator<<(char const *text) { return *this << SString(text); }
int SSocket::operator<<(char byte) { return *this << SString(byte, 1); }

int SSocket::operator<<(SStringList const &texts) {
  for (SString const &text : texts) _write_length += text.Length();
  (void)_write_list.Push(texts);
  return _write_length < kBlockSize || Flush();
}

int SSocket::Flush() {
  if (_Stopped()) return _write_length == 0;
  SString const text = _write_list.Join();
  int const sent = _SendUntilStopped(text);
  _write_list.Undef();
  _write_length = text.Length() - sent;
  if (_write_length > 0) (void)_write_list.Push(SString(text.View().substr(sent)));
  return _write_length == 0;
}

unsigned int SSocket::Send(SString const &text) {
  if (!Flush()) return 0;
  return _SendUntilStopped(text) == text.Length();
}

SString SSocket::Read(int count) {
  SString text("");
  while (text.Length() < count) {
    if (_read_list.Length() > 0)
      text += _read_list.Shift();
    else if (!_ReceiveBlock(text))
      break;
  }
  if (text.Length() <= std::max(count, 0)) return text;
  _PutBack(SString(text.View().substr(count)));
  return SString(text.View().substr(0, count));
}

int SSocket::NumLinesReady() const {
  int const count = _read_list.Length();
  return count > 0 && _read_list.Get(-1).Index(_line_end) < 0 ? count - 1 : count;
}

int SSocket::SelectRead() { return _Wait(_read, false, _read_timeout); }
int SSocket::SelectWrite() { return _Wait(_write, true, _write_timeout); }
void SSocket::SetReadTimeout(double seconds) { _read_timeout = ToTimeval(seconds); }
void SSocket::SetWriteTimeout(double seconds) { _write_timeout = ToTimeval(seconds); }

void SSocket::Block() const { _SetNonBlocking(0); }
void SSocket::Unblock() const { _SetNonBlocking(1); }

int SSocket::Close() {
  _closed = 1;
  int result = CloseSocket(_read);
  if (_write != _read && !CloseSocket(_write)) result = 0;
  _read = kNoHandle;  // a second Close must not meet another file under the same number
  _write = kNoHandle;
  return result;
}

SString SSocket::PeerIP() const { return GetPeerIP(_read); }
SString SSocket::LocalIP() const { return GetLocalIP(_read); }

int SSocket::_Wait(unsigned int handle, bool to_write, timeval timeout) {
  int const ready = Noted(WaitForHandle(DescriptorOf(handle), to_write, timeout));
  if (ready > 0) return 1;
  _timed_out = 1;
  if (ready < 0) _closed = 1;
  return 0;
}

// Sees to it that the read list begins with a whole line. Text without a line end stays its only item.
bool SSocket::_ReceiveLine() {
  SString text = _read_list.Shift();
  int searched = 0;  // no line end begins before this
  int const overlap = static_cast<int>(strlen(_line_end)) - 1;
  while (text.Index(_line_end, searched) < 0) {
    searched = std::max(text.Length() - overlap, 0);  // an end may be split over two blocks
    if (_ReceiveBlock(text)) continue;
    if (text.Length() > 0) (void)_read_list.Push(text);
    return false;
  }
  _FileLines(text);
  return true;
}

// Appends what one block brings to text; false when a flag or an error stops the reading.
bool SSocket::_ReceiveBlock(SString &text) {
  if (!_buffer) _buffer = std::make_unique<char[]>(kBlockSize);
  while (!_Stopped()) {
    if (!SelectRead()) continue;  // the flags decide
    ssize_t const got = ReceiveBytes(DescriptorOf(_read), _buffer.get(), kBlockSize);
    if (got > 0) {
      text.Append({_buffer.get(), static_cast<size_t>(got)});
      return true;
    }
    if (got == 0) {
      _closed = 1;
    } else if (!WouldBlock()) {
      (void)Noted(got);
      return false;
    }
  }
  return false;
}

// Puts text into the empty read list, cut behind each line end.
void SSocket::_FileLines(SString const &text) {
  size_t const end_length = strlen(_line_end);
  std::string_view rest = text.View();
  while (!rest.empty()) {
    size_t const end = rest.find(_line_end);
    size_t const length = end == std::string_view::npos ? rest.size() : end + end_length;
    (void)_read_list.Push(SString(rest.substr(0, length)));
    rest.remove_prefix(length);
  }
}

// Puts text that was read too far in front of the read list, which holds whole lines behind it or nothing.
void SSocket::_PutBack(SString const &text) {
  SStringList const behind = _read_list;
  _read_list.Undef();
  _FileLines(text);
  (void)_read_list.Push(behind);
}

// Number of bytes of text that went out before a flag or an error stopped it.
int SSocket::_SendUntilStopped(SString const &text) {
  int sent = 0;
  while (sent < text.Length() && !_Stopped() && SelectWrite()) {
    size_t const length = static_cast<size_t>(std::min(text.Length() - sent, _packet_size));
    ssize_t const count = SendBytes(DescriptorOf(_write), text.View().data() + sent, length);
    if (count >= 0) {
      sent += static_cast<int>(count);
    } else if (!WouldBlock()) {
      (void)Noted(count);
      break;
    }
  }
  return sent;
}

void SSocket::_SetNonBlocking(int on) const {
  if (_read == kNoHandle) return;
  SetNonBlocking(_read, on);
  if (_write != _read) SetNonBlocking(_write, on);
}

int Connect(SString const &address, int port, SSocket *socket) {
  struct sockaddr_in local = {};
  local.sin_family = AF_INET;
  struct sockaddr_in peer = local;
  peer.sin_addr.s_addr = inet_addr(address);
  peer.sin_port = htons(static_cast<uint16_t>(port));
  if (peer.sin_addr.s_addr == INADDR_NONE || port <= 0 || port > 0xffff) return 0;

  int const fd = Noted(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd < 0) return 0;
  if (Noted(bind(fd, reinterpret_cast<sockaddr const *>(&local), sizeof local)) != 0 ||
      Noted(ConnectWaiting(fd, peer)) != 0) {
    (void)close(fd);  // nothing was sent on it
    return 0;
  }
  socket->Init(static_cast<unsigned int>(fd), static_cast<unsigned int>(fd));
  socket->SetEolLF();
  socket->Unblock();
  return 1;
}

int Select(int count, fd_set *read, fd_set *write, fd_set *error, timeval *timeout) {
  int result;
  do {
    result = select(count, read, write, error, timeout);  // a failed call leaves the sets alone and counts the time
  } while (result < 0 && errno == EINTR);
  return Noted(result);
}

int CloseSocket(unsigned int handle) { return Noted(close(DescriptorOf(handle))) == 0; }

SString GetPeerIP(unsigned int handle) { return QuadOf(getpeername, handle); }
SString GetLocalIP(unsigned int handle) { return QuadOf(getsockname, handle); }
