// What readers see of a list's state while writers count in it and are killed.
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/text/base.h"
#include "tests/history/history.h"
#include "tests/support/scratch.h"

namespace {

constexpr int kKilobytes = 3;  // of each posting

SString UserOf(int counter) { return "user" + MakeSString(counter) + "@example.org"; }

class ListHistory : public ScratchSpool {
protected:
  // A posting of one user, in the list's totals and in the user's.
  bool Post(std::mt19937 &random) {
    int const counter = static_cast<int>(random() % SHistory::kCounters);
    ++history.Log(counter).begun;
    SListState state("news");
    bool isDone = state.Read() != 0;
    state.IncrTotalMessages();
    state.IncrTotalKbytes(kKilobytes);
    int const user = state.GetUserNum(UserOf(counter));
    state.IncrUserTotalMessages(user);
    state.IncrUserTotalKbytes(user, kKilobytes);
    isDone = isDone && state.Commit() != 0;
    if (!isDone) return history.Fault("a posting of user %d failed", counter);
    ++history.Log(counter).ended;
    return true;
  }

  // The counters under the lock: totals are the sums of the users', which are what their writers knew.
  bool Look(long (&last)[SHistory::kCounters]) {
    long least[SHistory::kCounters], sum = 0;
    for (int counter = 0; counter < SHistory::kCounters; ++counter) least[counter] = history.Log(counter).ended;
    SListState state("news");
    if (!state.Read()) return history.Fault("the state could not be read");
    for (int counter = 0; counter < SHistory::kCounters; ++counter) {
      int const user = state.GetUserNum(UserOf(counter));
      long const messages = state.GetUserTotalMessages(user);
      long const most = history.Log(counter).begun;
      if (messages < least[counter] || messages > most || messages < last[counter])
        return history.Fault("user %d had %ld postings: %ld seen, %ld ended before, %ld begun", counter, messages,
                             last[counter], least[counter], most);
      if (state.GetUserTotalKbytes(user) != kKilobytes * messages) return history.Fault("user %d was torn", counter);
      last[counter] = messages;
      sum += messages;
    }
    if (state.GetTotalMessages() != sum || state.GetTotalKbytes() != kKilobytes * sum)
      return history.Fault("totals %d and %d for %ld postings", state.GetTotalMessages(), state.GetTotalKbytes(), sum);
    return true;
  }

  // The file as a reader without a lock sees it: an old one or a new one, whole.
  bool LookUnlocked(int &last) {
    SString const file = MapFileRead(Path("listdata/news").c_str());
    auto const number = [&file](int at) {
      unsigned value = 0;
      for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(file[4 * at + i]);
      return static_cast<int>(value);
    };
    if (!file.Defined()) return history.Fault("the state was absent");
    int const messages = number(1);
    if (number(0) != 1 || number(2) != kKilobytes * messages || messages < last)
      return history.Fault("version %d, %d kilobytes for %d postings after %d", number(0), number(2), messages, last);
    last = messages;
    return true;
  }

  SHistory history;
};

TEST_F(ListHistory, CountersAreTheSumOfWhatWasPosted) {
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    ASSERT_TRUE(state.Commit());
  }
  auto const write = [this](std::mt19937 &random) {
    while (!history.IsOver() && Post(random)) {
    }
  };
  auto const read = [this](std::mt19937 &random) {
    long last[SHistory::kCounters] = {};
    int lastTotal = 0;
    for (bool isGood = true; isGood && history.TakeRead();)
      isGood = random() % 2 == 0 ? Look(last) : LookUnlocked(lastTotal);
  };
  history.Run(FromEnvironment("BRENTHAVEN_HISTORY_READS", 10000), write, read);
  long last[SHistory::kCounters] = {};
  EXPECT_TRUE(Look(last)) << history.FaultText();
  EXPECT_GT(history.Kills(), 0);
}

}  // namespace
