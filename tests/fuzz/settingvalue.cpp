// Any bytes as a value in the settings store, and any list as one to be stored.
//
// The first byte of the input picks: "b" the rest is a packed value, "m" one of many lines, else a list whose items are
// separated by line feeds.
#include <charconv>

#include "brenthaven/store/sdbfile.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr char kFile[] = "settings.sqlite";
constexpr char kName[] = "value";

// The store file, held open through both interfaces.
struct Store {
  HKEY key = nullptr;
  Sdbfile settings;
  Store() : settings((Made(), SString(fuzz::SMemoryDirectory::Path("."))), SString(kFile), 1) {
    std::string const path = fuzz::SMemoryDirectory::Path("./") + kFile;
    fuzz::Expect(RegOpenStoreA(path.c_str(), KEY_ALL_ACCESS, &key) == ERROR_SUCCESS, "can't open a store");
  }
  static void Made() { setenv("SpoolSync", "no", 1); }
  void Put(DWORD type, std::string_view bytes) const {
    auto const *data = reinterpret_cast<BYTE const *>(bytes.data());
    fuzz::Expect(RegSetValueExA(key, kName, 0, type, data, static_cast<DWORD>(bytes.size())) == ERROR_SUCCESS,
                 "can't store a value");
  }
};

// Reads digits at the front of a text and the NUL behind them.
bool TakeNumber(std::string_view &text, long &number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data() + text.size() || *end != '\0' || number < 0) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()) + 1);
  return true;
}

// As many items of a packed value as are whole. False when their number depends on forms of numbers that nobody writes
// (blanks and signs in front) or on an item that is cut off.
bool ReadSlowly(std::string_view packed, SStringList &list) {
  long count = 0;
  if (!TakeNumber(packed, count)) return false;
  for (; count > 0; --count) {
    long length = 0;
    if (!TakeNumber(packed, length) || static_cast<size_t>(length) > packed.size()) return false;
    list.Push(SString(packed.substr(0, static_cast<size_t>(length))));
    packed.remove_prefix(static_cast<size_t>(length));
  }
  return true;
}

void ExpectPacked(Store &store, std::string_view bytes) {
  store.Put(REG_BINARY, bytes);
  SStringList const read = store.settings.Get(kName);
  fuzz::Expect(read.Join().View().size() <= bytes.size(), "more was unpacked than there is", bytes);
  size_t at = 0;
  for (SString const &item : read) {
    at = bytes.find(item.View(), at);
    fuzz::Expect(at != bytes.npos, "an item that is not in the value", item.View());
    at += item.View().size();
  }
  SStringList slowly;
  if (ReadSlowly(bytes, slowly)) fuzz::Expect(read == slowly, "a sound value is read otherwise", bytes);
}

void ExpectLines(Store &store, std::string_view bytes) {
  store.Put(REG_MULTI_SZ, bytes);
  SStringList const read = store.settings.Get(kName);
  std::string_view const text = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
  fuzz::Expect(read.Join(SString("\0", 1)).View() == text, "lines are read as others", bytes);
}

// Lines lose empty ones at their end; a list with a NUL in it comes back as it was.
void ExpectStored(Store &store, std::string_view bytes) {
  SStringList list = SString(bytes).SplitExact("\n", 0);
  if (!list.Defined()) list.Define();
  fuzz::Expect(store.settings.Set(kName, list) == 1, "can't store a list");
  SStringList const read = store.settings.Get(kName);
  if (bytes.find('\0') == bytes.npos)
    while (list.Length() > 0 && list.Get(-1).Length() == 0) (void)list.Pop();
  fuzz::Expect(read == list, "a list is read as another", bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  static Store store;
  if (size == 0) return 0;
  std::string_view const bytes = fuzz::View(data + 1, size - 1);
  switch (data[0]) {
    case 'b':
      ExpectPacked(store, bytes);
      break;
    case 'm':
      ExpectLines(store, bytes);
      break;
    default:
      ExpectStored(store, bytes);
  }
  fuzz::Expect(!Sdbfile::ReadFailed(), "a read from the store failed");
  return 0;
}
