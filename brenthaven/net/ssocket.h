// brenthaven/net/ssocket.h - line-oriented streams over sockets, for text protocols.
#pragma once
#include <sys/select.h>
#include <sys/time.h>

#include <memory>

#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Brings the socket layer up for the process. All there is to do here is to remember which descriptors stand in the
// role of standard input and output; SSocket() takes those, or 0 and 1 without it.
class SSocketInit {
public:
  SSocketInit();
  SSocketInit(SSocketInit const &) = delete;
  SSocketInit &operator=(SSocketInit const &) = delete;
};

// A stream over a pair of descriptors, which may be one and the same. It reads by lines or by counts, gathers output to
// blocks, and limits each wait. The descriptors are borrowed: only Close closes them, the destructor does not. Copies
// are not made. Results are 1 (non-zero) for success and 0 for failure; TimedOut and IsClosed say why. After a time-out
// reading stays stopped until ClearTimeOut. A peer that vanished is a failure, never a signal.
class SSocket {
public:
  SSocket();  // over standard input and output
  SSocket(unsigned int read, unsigned int write) { Init(read, write); }
  SSocket(SSocket const &) = delete;
  SSocket &operator=(SSocket const &) = delete;

  // Takes new descriptors and forgets all of the old stream: text in both directions, flags, time-outs (1800 s each)
  // and line end (CR LF). MaxPacketSize in the environment, at least 64, is the most that one send takes.
  void Init(unsigned int read, unsigned int write);

  // One line without its line end; undefined with 0 when there is none. Text without a line end stays in the stream
  // for a later Read, also at the end of the stream.
  int operator>>(SString &line);
  // Replaces the list by all whole lines that are here, after waiting for at least one.
  int operator>>(SStringList &lines);
  // Buffered: sent when 4096 bytes have gathered. 0 when a send failed; what was not sent is kept for Flush.
  int operator<<(SString const &text);
  int operator<<(SStringList const &texts);
  int operator<<(char const *text);
  int operator<<(char byte);
  int Flush();                             // 1 when nothing waits to be sent any longer
  unsigned int Send(SString const &text);  // Flush, then exactly this text, unbuffered
  // count bytes, waiting for them; fewer when the stream ends or a flag stops it; empty for a count below 1.
  SString Read(int count);
  int NumLinesReady() const;  // whole lines that can be had without waiting

  int SelectRead();  // waits until there is something to read: 1, or 0 with the flag set
  int SelectWrite();
  void SetReadTimeout(double seconds);
  void SetWriteTimeout(double seconds);
  void ClearTimeOut() { _timed_out = 0; }
  int TimedOut() const { return _timed_out; }
  int IsClosed() const { return _closed; }  // by Close, by the end of the stream or by a failed wait
  void SetEolCRLF() { _line_end = "\r\n"; }
  void SetEolLF() { _line_end = "\n"; }
  void Block() const;
  void Unblock() const;
  void SetLingerOption(int, int) const {}  // sockets linger as the system does it
  int Close();                             // closes both descriptors, once when they are equal; 1 when that went well

  SString PeerIP() const;
  SString LocalIP() const;

private:
  bool _Stopped() const { return _closed != 0 || _timed_out != 0; }
  int _Wait(unsigned int handle, bool to_write, timeval timeout);
  bool _ReceiveLine();
  bool _ReceiveBlock(SString &text);
  void _FileLines(SString const &text);
  void _PutBack(SString const &text);
  int _SendUntilStopped(SString const &text);
  void _SetNonBlocking(int on) const;

  unsigned int _read;
  unsigned int _write;
  timeval _read_timeout;
  timeval _write_timeout;
  char const *_line_end;
  int _packet_size;
  int _timed_out;
  int _closed;
  std::unique_ptr<char[]> _buffer;  // one block, made by the first read
  SStringList _read_list;           // received text, a line with its end each; only the last may lack it
  SStringList _write_list;          // text to be sent
  int _write_length;                // bytes in it
};

// Connects by TCP to a dotted quad; the stream then has LF as its line end and is unblocked. 0 with nothing left open
// on failure.
int Connect(SString const &address, int port, SSocket *socket);
// The system's select, made again with the time that is left when a signal interrupts it. Handles are below FD_SETSIZE.
int Select(int count, fd_set *read, fd_set *write, fd_set *error, timeval *timeout);
int CloseSocket(unsigned int handle);

// Dotted quad of the other side or of our own; undefined on failure.
SString GetPeerIP(unsigned int handle);
SString GetLocalIP(unsigned int handle);
