#include "brenthaven/net/ssocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "brenthaven/text/base.h"
#include "tests/support/texts.h"

// A stream over one end of a socket pair; the test speaks at the other end.
class SocketTest : public ::testing::Test {
protected:
  SocketTest() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
    peer = ends[1];
    stream.Init(static_cast<unsigned>(ends[0]), static_cast<unsigned>(ends[0]));
    stream.SetReadTimeout(0);
  }
  ~SocketTest() override {
    (void)stream.Close();
    HangUp();
  }
  void Say(std::string const &bytes) const {
    ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void HangUp() {
    if (peer >= 0) (void)close(peer);
    peer = -1;
  }
  std::string Heard() const {
    char bytes[1 << 16];
    ssize_t const got = recv(peer, bytes, sizeof bytes, MSG_DONTWAIT);
    return got < 0 ? "" : std::string(bytes, static_cast<size_t>(got));
  }
  std::string Line() {
    SString line;
    return stream >> line ? Text(line) : "(none)";
  }

  int peer;
  SSocket stream{static_cast<unsigned>(-1), static_cast<unsigned>(-1)};
};

TEST_F(SocketTest, LinesOfOneBlockAreHandedOutOneByOne) {
  Say("one\r\ntwo\r\n\r\nthr");
  EXPECT_EQ(stream.NumLinesReady(), 0);
  EXPECT_EQ(Line(), "one");
  EXPECT_EQ(stream.NumLinesReady(), 2);
  EXPECT_EQ(Line(), "two");
  EXPECT_EQ(Line(), "");
  EXPECT_EQ(stream.NumLinesReady(), 0);
  EXPECT_EQ(Line(), "(none)");
  EXPECT_TRUE(stream.TimedOut());
  Say("ee\r\n");
  EXPECT_EQ(Line(), "(none)") << "stopped until the flag is cleared";
  stream.ClearTimeOut();
  EXPECT_EQ(Line(), "three");
}

TEST_F(SocketTest, LineEndSplitOverTwoReadsIsFound) {
  Say("one\r");
  EXPECT_EQ(Line(), "(none)");
  stream.ClearTimeOut();
  Say("\ntwo\n");
  EXPECT_EQ(Line(), "one");
  stream.SetEolLF();
  EXPECT_EQ(Line(), "two");
}

TEST_F(SocketTest, LineEndSplitOverTwoBlocksIsFound) {
  std::string const long_line(4095, 'x');
  Say(long_line + "\r\nrest\r\n");
  EXPECT_EQ(Line(), long_line);
  EXPECT_EQ(Line(), "rest");
}

TEST_F(SocketTest, PartialLineAtTheEndIsNoLineButCanBeRead) {
  Say("one\r\npart");
  HangUp();
  EXPECT_EQ(Line(), "one");
  EXPECT_EQ(Line(), "(none)");
  EXPECT_TRUE(stream.IsClosed());
  EXPECT_FALSE(stream.TimedOut());
  EXPECT_EQ(Text(stream.Read(10)), "part");
  EXPECT_EQ(Text(stream.Read(10)), "");
}

TEST_F(SocketTest, AllLinesThatAreHere) {
  SStringList lines;
  EXPECT_EQ(stream >> lines, 0);
  stream.ClearTimeOut();
  Say("one\r\ntwo\r\nthr");
  EXPECT_NE(stream >> lines, 0);
  EXPECT_TRUE(lines == (SStringList{"one", "two"}));
}

TEST_F(SocketTest, CountsAndLinesMix) {
  Say("0123\r\n4567\r\n89\r\n");
  EXPECT_EQ(Text(stream.Read(0)), "");
  EXPECT_EQ(Text(stream.Read(-1)), "");
  EXPECT_EQ(Text(stream.Read(2)), "01");
  EXPECT_EQ(Line(), "23");
  EXPECT_EQ(Text(stream.Read(7)), "4567\r\n8");
  EXPECT_EQ(Line(), "9");
  Say("abc");
  EXPECT_EQ(Text(stream.Read(3)), "abc");
  EXPECT_EQ(Text(stream.Read(1)), "");
  EXPECT_TRUE(stream.TimedOut());
}

TEST_F(SocketTest, VeryLongLineArrivesWhole) {
  std::string const line(8 << 20, 'x');
  stream.SetReadTimeout(60);
  std::thread speaker([&] { Say(line + "\r\n"); });
  EXPECT_TRUE(Line() == line);
  speaker.join();
}

TEST_F(SocketTest, OutputGathersToABlock) {
  EXPECT_NE(stream << "a" << 1, 0);
  EXPECT_NE(stream << SString(std::string(4094, 'x').c_str()), 0);
  EXPECT_EQ(Heard(), "");
  EXPECT_NE(stream << 'z', 0);
  EXPECT_EQ(Heard(), "a" + std::string(4094, 'x') + "z");
  EXPECT_NE(stream << (SStringList{"b", "c"}), 0);
  EXPECT_NE(stream.Send("d"), 0U);
  EXPECT_EQ(Heard(), "bcd");
  EXPECT_NE(stream.Flush(), 0);
}

TEST_F(SocketTest, WhatDoesNotGoOutInTimeIsKept) {
  std::string const text(4 << 20, 'x');  // more than a socket holds
  stream.Unblock();
  stream.SetWriteTimeout(0);
  EXPECT_EQ(stream << SString(text.c_str()), 0);
  EXPECT_TRUE(stream.TimedOut());
  EXPECT_EQ(stream.Flush(), 0) << "stopped until the flag is cleared";
  stream.ClearTimeOut();
  stream.SetWriteTimeout(60);
  std::thread listener([&] {
    size_t left = text.size();
    char bytes[1 << 16];
    while (left > 0) {
      ssize_t const got = read(peer, bytes, sizeof bytes);
      if (got <= 0) break;
      left -= static_cast<size_t>(got);
    }
    EXPECT_EQ(left, 0U);
  });
  EXPECT_NE(stream.Flush(), 0);
  listener.join();
}

TEST_F(SocketTest, VanishedPeerIsAnErrorAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  HangUp();
  EXPECT_EQ(stream.Send("x"), 0U);
  EXPECT_EQ(GetSocketErrorNo(), EPIPE);
  EXPECT_EQ(stream << SString(std::string(5000, 'x').c_str()), 0);
}

TEST_F(SocketTest, BrokenPipeIsAnErrorAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  SSocket pipe_stream(static_cast<unsigned>(ends[0]), static_cast<unsigned>(ends[1]));
  ASSERT_NE(pipe_stream.Send("line\r\n"), 0U);
  SString line;
  EXPECT_NE(pipe_stream >> line, 0);
  EXPECT_EQ(Text(line), "line");
  ASSERT_EQ(close(ends[0]), 0);
  EXPECT_EQ(pipe_stream.Send("x"), 0U);
  EXPECT_EQ(GetSocketErrorNo(), EPIPE);
  ASSERT_EQ(close(ends[1]), 0);
}

TEST_F(SocketTest, PacketSizeLimitsOneSend) {
  struct Case {
    char const *setting;
    size_t packet;  // of 100 bytes sent
  };
  for (Case const &c : {Case{"63", 100}, Case{"64", 64}, Case{"", 100}, Case{"-5", 100}, Case{"99999999999", 100}}) {
    setenv("MaxPacketSize", c.setting, 1);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    SSocket packets(static_cast<unsigned>(ends[0]), static_cast<unsigned>(ends[0]));
    EXPECT_NE(packets.Send(SString('x', 100)), 0U);
    char bytes[200];
    EXPECT_EQ(recv(ends[1], bytes, sizeof bytes, 0), static_cast<ssize_t>(c.packet)) << c.setting;
    EXPECT_NE(packets.Close(), 0);
    ASSERT_EQ(close(ends[1]), 0);
  }
}

TEST_F(SocketTest, CloseClosesEachDescriptorOnce) {
  int const ours = dup(peer);
  int const other = dup(peer);
  SSocket pair(static_cast<unsigned>(ours), static_cast<unsigned>(other));
  EXPECT_NE(pair.Close(), 0);
  EXPECT_EQ(fcntl(ours, F_GETFD), -1);
  EXPECT_EQ(fcntl(other, F_GETFD), -1);
  int const reused = dup(peer);  // takes the number of one of them
  EXPECT_EQ(pair.Close(), 0);
  pair.Unblock();
  EXPECT_NE(fcntl(reused, F_GETFD), -1) << "a second Close must not touch it";
  EXPECT_EQ(pair.Send("x"), 0U);
  SString line;
  EXPECT_EQ(pair >> line, 0);
  ASSERT_EQ(close(reused), 0);
}

TEST_F(SocketTest, WaitsAreLimited) {
  EXPECT_EQ(stream.SelectWrite(), 1);
  stream.SetReadTimeout(0.02);
  EXPECT_EQ(stream.SelectRead(), 0);
  EXPECT_TRUE(stream.TimedOut());
  EXPECT_FALSE(stream.IsClosed());
  SSocket bad(static_cast<unsigned>(-1), static_cast<unsigned>(-1));
  bad.SetReadTimeout(-1);
  EXPECT_EQ(bad.SelectRead(), 0);
  EXPECT_TRUE(bad.TimedOut());
}

TEST_F(SocketTest, InvalidDescriptorSetsBothFlags) {
  int const gone = dup(peer);
  ASSERT_EQ(close(gone), 0);
  SSocket bad(static_cast<unsigned>(gone), static_cast<unsigned>(gone));
  EXPECT_EQ(bad.SelectRead(), 0);
  EXPECT_TRUE(bad.TimedOut() && bad.IsClosed());
  EXPECT_EQ(GetSocketErrorNo(), EBADF);
}

TEST_F(SocketTest, ConnectsAndTellsBothAddresses) {
  int const listener = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), length), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
  int const port = ntohs(address.sin_port);

  SSocket client;
  ASSERT_EQ(Connect("127.0.0.1", port, &client), 1);
  EXPECT_EQ(Text(client.PeerIP()), "127.0.0.1");
  EXPECT_EQ(Text(client.LocalIP()), "127.0.0.1");
  int const server = accept(listener, nullptr, nullptr);
  ASSERT_EQ(write(server, "line\n", 5), 5);
  SString line;
  EXPECT_NE(client >> line, 0);
  EXPECT_EQ(Text(line), "line") << "LF ends a line after Connect";
  EXPECT_NE(client.Close(), 0);
  ASSERT_EQ(close(server), 0);
  ASSERT_EQ(close(listener), 0);

  SetSocketErrorNo(0);
  EXPECT_EQ(Connect("127.0.0.1", port, &client), 0) << "nobody listens any longer";
  EXPECT_EQ(GetSocketErrorNo(), ECONNREFUSED);
  EXPECT_EQ(Connect("localhost", port, &client), 0) << "no dotted quad";
  EXPECT_EQ(Connect("127.0.0.1", 65536 + port, &client), 0);
  EXPECT_FALSE(GetPeerIP(static_cast<unsigned>(-1)).Defined());
  EXPECT_FALSE(stream.PeerIP().Defined()) << "no internet address";
}
