// Any bytes as a state file, and as the state file of a mailing list.
//
// The input is the file.
#include <sys/stat.h>

#include "brenthaven/lists/sliststate.h"
#include "brenthaven/platform/pickle.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr char kListUID[] = "news";

std::string StatePath() { return fuzz::SMemoryDirectory::Path("listdata/") + kListUID; }

void SetUp() {
  static bool isDone = false;
  if (isDone) return;
  isDone = true;
  fuzz::MuteErrorStream();
  setenv("Brenthaven", fuzz::SMemoryDirectory::Path(".").c_str(), 1);
  setenv("SpoolSync", "no", 1);
  if (mkdir(fuzz::SMemoryDirectory::Path("listdata").c_str(), 0770) != 0) fuzz::Fail("can't make listdata");
}

// Whatever the file says, no more comes out of it than there is, and what came out is read back as it was.
void ExpectBounded(size_t size) {
  SString const path(StatePath());
  SPickleFile file(path);
  fuzz::Expect(file.Read() == 1, "a file can't be read");
  SStringList lists;
  SStringList texts;
  size_t total = 0;
  int counted = 0;
  for (size_t round = 0; round <= size / 8; ++round) {
    counted = file.GetInt();
    SString const text = file.GetString();
    SStringList const list = file.GetList();
    fuzz::Expect(static_cast<size_t>(list.Length()) <= size / 4, "a list of more items than the file has room for");
    total += static_cast<size_t>(text.Length()) + list.Join().View().size();
    fuzz::Expect(total <= size, "more text than the file holds");
    texts.Push(text);
    lists.Push(list);
  }
  file.Clear();
  file.PutList(texts);
  file.PutInt(counted);
  file.PutList(lists);
  fuzz::Expect(file.Write() == 1, "a file can't be written");
  SPickleFile again(path);
  fuzz::Expect(again.Read() == 1 && again.GetList() == texts && again.GetInt() == counted && again.GetList() == lists,
               "what was written is not read");
  fuzz::Expect(again.WasExact(), "a whole file is taken for a damaged one");
}

// What a list's state tells about itself.
std::string Told(SListState &state) {
  std::string told;
  for (int i = 0; i < state.GetUserCount(); ++i) {
    told += fuzz::Bytes(state.GetUser(i)) + " ";
    for (int const value : {state.GetUserTotalMessages(i), state.GetUserTotalKbytes(i), state.GetModeratedPostCount(i),
                            state.GetBounceCount(i)})
      told += std::to_string(value) + " ";
  }
  for (int i = 0; i < state.GetApproveMsgsCount(); ++i)
    told += fuzz::Bytes(state.GetApproveMsgId(i) + " " + state.GetApproveMsgText(i) + "\n");
  for (SStringList const &list :
       {state.GetSubscribeRequests(0), state.GetSubscribeRequests(1), state.GetUnsubscribeRequests()})
    told += fuzz::Bytes(list.Join(" ")) + "\n";
  for (int const value : {state.GetTotalMessages(), state.GetTotalKbytes(), state.GetDigestNumber(),
                          state.GetSubscriptions(), state.GetUnsubscriptions(), state.GetForcedUnsubscriptions()})
    told += std::to_string(value) + " ";
  return told;
}

bool TakeNumber(std::string_view &bytes, size_t &number) {
  if (bytes.size() < 4) return false;
  number = 0;
  for (size_t i = 4; i-- > 0;) number = number << 8 | static_cast<unsigned char>(bytes[i]);
  bytes.remove_prefix(4);
  return true;
}

bool TakeList(std::string_view &bytes) {
  size_t count = 0;
  if (!TakeNumber(bytes, count)) return false;
  for (; count > 0; --count) {
    size_t length = 0;
    if (!TakeNumber(bytes, length) || length > bytes.size()) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

// Whether a file ends just where its last record does.
bool IsWhole(std::string_view bytes) {
  constexpr int kNumbers = 10;
  constexpr int kLists = 11;
  size_t number = 0;
  for (int i = 0; i < kNumbers; ++i)
    if (!TakeNumber(bytes, number)) return false;
  for (int i = 0; i < kLists; ++i)
    if (!TakeList(bytes)) return false;
  return bytes.empty();
}

// A file that can't be a state is refused and stays; one that is read is the same state once it was written.
void ExpectKept(std::string_view bytes) {
  std::string told;
  {
    SListState state(kListUID);
    bool const isRead = state.Read() != 0;
    fuzz::Expect(isRead == IsWhole(bytes), "a whole state is refused, or a damaged one is taken");
    if (!isRead) {
      fuzz::Expect(fuzz::FileBytes(StatePath()) == bytes, "a damaged state was changed");
      return;
    }
    told = Told(state);
    fuzz::Expect(state.Commit() == 1, "a state can't be written");
  }
  std::string const written = fuzz::FileBytes(StatePath());
  SListState state(kListUID);
  fuzz::Expect(state.Read() == 1, "a state that was written is taken for a damaged one");
  fuzz::Expect(Told(state) == told, "a state that was written is another", told);
  fuzz::Expect(state.Commit() == 1 && fuzz::FileBytes(StatePath()) == written, "a state does not stay as it is");
}

// The counts of a state go on from wherever they are.
void ExpectCounting(std::string_view bytes) {
  fuzz::PutFile(StatePath(), bytes);
  SListState state(kListUID);
  if (!state.Read()) return;
  int const before = state.GetTotalKbytes();
  fuzz::Expect(state.IncrTotalKbytes(INT32_MAX) >= before, "a total went down");
  (void)state.IncrTotalMessages();
  (void)state.IncrDigestVolume();
  (void)state.IncrUnsubscriptions(1);
  int const user = state.GetUserNum("somebody@example.org");
  fuzz::Expect(state.GetUserNum("somebody@example.org") == user, "a user has two places");
  (void)state.IncrUserTotalKbytes(user, INT32_MAX);
  (void)state.AddMessageID("an id");
  fuzz::Expect(state.AddMessageID("an id") == 1, "a message just seen is new");
  while (state.DeleteApproveMsg(0)) continue;
  state.ClearStats();
  fuzz::Expect(state.Commit() == 1, "a state can't be written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  SetUp();
  std::string_view const bytes = fuzz::View(data, size);
  fuzz::PutFile(StatePath(), bytes);
  ExpectKept(bytes);
  ExpectCounting(bytes);
  fuzz::PutFile(StatePath(), bytes);
  ExpectBounded(size);
  return 0;
}
