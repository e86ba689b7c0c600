// Any bytes as a B-tree file: reading ends, within its memory; what a damaged page held is reported as not readable,
// and never as not there; and a file is not written to once damage was met.
//
// The first byte of the input picks: "i" the rest is the file, else the rest are changes to a sound file, as
// storefiles.h tells.
#include "brenthaven/store/page.h"
#include "brenthaven/store/salvage.h"
#include "tests/fuzz/storefiles.h"

namespace {

std::string TreePath() { return fuzz::SMemoryDirectory::Path("tree"); }

// A tree of three levels, since its keys are long, with a value that lies in pages of its own.
fuzz::Records MadeRecords() {
  fuzz::Records records;
  std::string const front = "key " + std::string(90, 'k');
  for (int i = 1000; i < 1040; ++i) records[front + std::to_string(i)] = "value of " + std::to_string(i);
  records[front + "1020"] = std::string(1500, 'v');
  records[front + "1030" + std::string(34, 'k')] = "of the longest key";
  records["last"] = "";
  return records;
}

struct Sound {
  fuzz::Records const records = MadeRecords();
  std::string image;
  Sound() {
    fuzz::LimitFiles();
    setenv("SpoolSync", "no", 1);
    fuzz::MakeTree(TreePath());
    SBTree tree(SString(TreePath()), 0);
    tree.LockWrite();
    for (auto const &[key, value] : records)
      fuzz::Expect(tree.Set(fuzz::Text(key), fuzz::Text(value)) == 1, "can't fill a tree", key);
    tree.UnlockWrite();
    fuzz::Expect(!tree.WriteFailed(), "can't write a tree");
    image = fuzz::FileBytes(TreePath());
  }
};

// Whether all that was changed can be told from sound pages: then nothing of the tree may seem to be missing. An empty
// file is a new tree.
bool IsDamageVisible(std::string const &sound, std::string const &image) {
  if (image.empty() ||
      image.substr(0, fuzz::kPageSize) != sound.substr(0, std::min<size_t>(image.size(), fuzz::kPageSize)))
    return false;
  for (size_t at = fuzz::kPageSize; at < image.size(); at += fuzz::kPageSize) {
    std::string const page = image.substr(at, fuzz::kPageSize);
    bool const isChanged = page != sound.substr(at, page.size());
    if (isChanged && page.size() == fuzz::kPageSize &&
        IsSoundPage(reinterpret_cast<unsigned char const *>(page.data()), page.size(),
                    static_cast<std::uint32_t>(at / fuzz::kPageSize)))
      return false;
  }
  return true;
}

// A writer fills free pages anew, and nothing in a page tells whether it is free: a file whose list of them leads into
// the tree is broken by the next change.
bool HasNoFreePages(std::string const &image) {
  constexpr size_t kFirstFree = 12;  // offset in the metadata, 4 bytes
  return image.size() < kFirstFree + 4 || image.substr(kFirstFree, 4) == std::string(4, '\0');
}

// More than any file of this size can hold: who walks on is in a circle.
int MostRecords(size_t size) { return static_cast<int>(size / 8 + 8); }

void Walk(SBTree &tree, size_t size) {
  int left = MostRecords(size);
  SString key;
  std::string last;
  for (SString value = tree.SeqFirstJJ(key); tree.GetMoveStatus() == 0; value = tree.SeqNext(key)) {
    fuzz::Expect(--left > 0, "a walk through a tree does not end");
    fuzz::Expect(value.Defined(), "a record without a value");
  }
  left = MostRecords(size);
  for (SString value = tree.SeqLastJJ(key); tree.GetMoveStatus() == 0; value = tree.SeqPrevJJ(key))
    fuzz::Expect(--left > 0, "a walk back through a tree does not end");
  key = "key kkk";
  (void)tree.SeqFirst(key);
}

void ExpectReading(Sound const &sound, std::string const &image, bool isDamageVisible) {
  SBTree tree(SString(TreePath()), 0);
  tree.LockRead();
  for (auto const &[key, value] : sound.records) {
    SString const found = tree.Get(fuzz::Text(key));
    int const status = tree.GetStatus();
    fuzz::Expect(status >= -1 && status <= 1, "a status that is none");
    fuzz::Expect(status == -1 || !found.Defined() == (status == 1), "a value that is not there", key);
    if (status == -1) fuzz::Expect(tree.ReadFailed() == 1, "a failure that nobody sees", key);
    if (isDamageVisible) fuzz::Expect(status != 1, "a record in a damaged page seems not to be there", key);
    if (isDamageVisible && status == 0 && value.size() < 300)
      fuzz::Expect(found == fuzz::Text(value), "another value", key);
  }
  Walk(tree, image.size());
  tree.UnlockRead();
}

void ExpectWriting(Sound const &sound, std::string const &image) {
  {
    SBTree tree(SString(TreePath()), 0);
    tree.LockWrite();
    bool isWritten = true;
    for (auto const &[key, value] : sound.records) {
      isWritten = tree.Set(fuzz::Text(key), fuzz::Text(value + " changed")) && isWritten;
      (void)tree.Get(fuzz::Text(key));
    }
    (void)tree.Delete("last");
    Walk(tree, image.size() + 4 * sound.image.size());
    tree.UnlockWrite();
    if (tree.WriteFailed() || !isWritten) return;
  }
  SBTree tree(SString(TreePath()), 0);
  for (auto const &[key, value] : sound.records)
    if (key != "last" && image == sound.image)
      fuzz::Expect(tree.Get(fuzz::Text(key)) == fuzz::Text(value + " changed"), "what was written is not there", key);
}

void ExpectSalvage(Sound const &sound, bool isUnchanged) {
  size_t found = 0;
  SSalvage const salvage = SalvageRecords(SString(TreePath()), [&](SString const &key, SString const &value) {
    auto const known = sound.records.find(fuzz::Bytes(key));
    if (known != sound.records.end() && known->second == fuzz::Bytes(value)) ++found;
  });
  if (isUnchanged) fuzz::Expect(salvage.isWhole && found >= sound.records.size(), "a sound file is not salvaged whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  static Sound const sound;
  if (size == 0) return 0;
  std::string_view const rest = fuzz::View(data + 1, size - 1);
  std::string image(data[0] == 'i' ? rest : std::string_view(sound.image));
  if (data[0] != 'i') fuzz::Damage(image, rest);
  fuzz::PutFile(TreePath(), image);
  ExpectReading(sound, image, image == sound.image || (data[0] != 'i' && IsDamageVisible(sound.image, image)));
  ExpectSalvage(sound, image == sound.image);
  if (HasNoFreePages(image)) ExpectWriting(sound, image);
  return 0;
}
