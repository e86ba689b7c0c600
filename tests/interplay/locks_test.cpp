// Our locks against the record locks of other programs, both ways.
#include <fcntl.h>

#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/mailbox/sizefile.h"
#include "brenthaven/platform/files.h"
#include "tests/store/process.h"
#include "tests/support/program.h"
#include "tests/support/scratch.h"

namespace {

// The other program while it holds a lock, or after it was refused.
class RecordLock {
public:
  RecordLock(char const *type, std::string const &file) {
    int up[2];
    if (pipe2(up, O_CLOEXEC) != 0) abort();
    _pid = fork();
    if (_pid == 0) {
      dup2(up[1], STDOUT_FILENO);
      execl(RECORDLOCK, RECORDLOCK, type, file.c_str(), nullptr);
      _exit(2);
    }
    close(up[1]);
    char said[16] = {};
    _isHeld = read(up[0], said, sizeof said - 1) > 0 && std::string(said) == "held\n";
    close(up[0]);
  }
  RecordLock(RecordLock const &) = delete;
  ~RecordLock() { (void)End(); }

  bool IsHeld() const { return _isHeld; }
  // 0 when it had the lock, which is free then, or what it said by its code.
  int End() {
    int status = 0;
    if (_pid <= 0) return -1;
    if (_isHeld) kill(_pid, SIGKILL);
    waitpid(_pid, &status, 0);
    _pid = 0;
    return _isHeld ? 0 : WEXITSTATUS(status);
  }

private:
  pid_t _pid;
  bool _isHeld;
};

class LocksTest : public ScratchSpool {
protected:
  LocksTest() { std::filesystem::create_directory(Path("listdata")); }
  // What another program gets that asks for the lock now: 1 when it is refused, 0 when granted.
  static int Ask(char const *type, std::string const &file) {
    RecordLock lock(type, file);
    return lock.End();
  }
  // A body of ours waits as long as the other program holds its lock, and then succeeds.
  static void ExpectToWait(char const *type, std::string const &file, std::function<bool()> const &body) {
    RecordLock foreign(type, file);
    ASSERT_TRUE(foreign.IsHeld()) << file;
    Peer ours([&](Peer &peer) {
      bool const isDone = body();
      peer.Tell();
      return isDone ? 0 : 1;
    });
    ours.WaitUntilBlocked();
    EXPECT_EQ(foreign.End(), 0);
    EXPECT_TRUE(ours.Hear());
    EXPECT_EQ(ours.Result(), 0) << file;
  }
  // What every process does to a file now and then: open it, look, close it. A record lock would be lost by it.
  static void Touch(std::string const &file) {
    EXPECT_TRUE(IsReadable(file.c_str()));
    EXPECT_TRUE(FileExists(file.c_str()));
    close(open(file.c_str(), O_RDWR));
  }
};

TEST_F(LocksTest, MailboxSizeIsOneWritersAtATime) {
  std::filesystem::create_directories(Path("mailboxes/1/ann/in"));
  SString const folder = Path("mailboxes/1/ann/in/").c_str();
  std::string const lock = Path("mailboxes/1/ann/in/__size_lock__");
  {
    SSizeFile size(folder, 0.05);
    ASSERT_TRUE(size.Lock());
    EXPECT_EQ(Ask("write", lock), 1);
    EXPECT_EQ(Ask("read", lock), 1);
    Touch(lock);
    EXPECT_EQ(Ask("write", lock), 1) << "lost by a close of another descriptor";
    size.Unlock();
    EXPECT_EQ(Ask("write", lock), 0);
  }
  for (char const *type : {"read", "write"}) {
    RecordLock foreign(type, lock);
    ASSERT_TRUE(foreign.IsHeld());
    SSizeFile size(folder, 0.05);
    EXPECT_FALSE(size.Lock()) << type;
    EXPECT_EQ(foreign.End(), 0);
    EXPECT_TRUE(size.Lock()) << type;
  }
}

TEST_F(LocksTest, ListStateIsHeldFromReadToCommit) {
  std::string const lock = Path("listdata/news.lock");
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    EXPECT_EQ(Ask("write", lock), 1);
    Touch(lock);
    EXPECT_EQ(Ask("read", lock), 1) << "lost by a close of another descriptor";
    state.IncrTotalMessages();
    ASSERT_TRUE(state.Commit());
    EXPECT_EQ(Ask("write", lock), 0);
  }
  ExpectToWait("write", lock, [] {
    SListState state("news");
    return state.Read() && state.IncrTotalMessages() == 2 && state.Commit();
  });
}

TEST_F(LocksTest, AccountsAreSharedByReadersAndOneWriters) {
  std::string const file = Path("config/BTAccounts.a");
  auto const add = [](char const *uid) {
    SAccountDBMod store;
    SAccountMod account;
    return store.ModifyAccount(uid, &account) != 0;
  };
  auto const isThere = [](char const *uid) {
    SAccount account;
    return SAccountDB().GetAccountInfo(uid, &account) != 0;
  };
  ASSERT_TRUE(add("ann"));
  {
    SAccountDBMod store;
    EXPECT_EQ(Ask("read", file), 1);
    EXPECT_EQ(Ask("write", file), 1);
    Touch(file);
    EXPECT_EQ(Ask("write", file), 1) << "lost by a close of another descriptor";
  }
  {
    SAccountReadScope const scope;
    EXPECT_TRUE(isThere("ann"));
    EXPECT_EQ(Ask("read", file), 0);
    EXPECT_EQ(Ask("write", file), 1);
  }
  EXPECT_EQ(Ask("write", file), 0);
  {
    RecordLock foreign("read", file);
    ASSERT_TRUE(foreign.IsHeld());
    EXPECT_TRUE(isThere("ann")) << "readers do not keep each other out";
  }
  ExpectToWait("read", file, [&] { return add("bob"); });
  ExpectToWait("write", file, [&] { return isThere("bob"); });
}

}  // namespace
