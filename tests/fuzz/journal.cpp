// Any bytes as the journal of two B-tree files: a journal that is damaged counts for nothing, and one that is whole is
// replayed whole, however far its writer came.
//
// The first byte of the input picks: "i" the rest is the journal; else the rest are changes to a sound one, as
// storefiles.h tells, behind a byte whose bits say which of the pages the trees have already. With "s" the journal gets
// the checksums that fit what it holds after the changes.
#include "brenthaven/store/journal.h"

#include <array>
#include <cstring>
#include <vector>

#include "tests/fuzz/storefiles.h"

namespace {

constexpr size_t kHeaderSize = 64;
constexpr size_t kBodySum = 56;  // offsets in the header
constexpr size_t kHeaderSum = 60;
constexpr size_t kBodySize = 48;

// Bit by bit (RFC 3720 appendix B.4).
std::uint32_t Crc32c(std::string_view bytes) {
  std::uint32_t crc = 0xffffffff;
  for (unsigned char const c : bytes) {
    crc ^= c;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0x82f63b78 : 0);
  }
  return ~crc;
}

void PutNumber(std::string &image, size_t at, std::uint32_t number) { std::memcpy(image.data() + at, &number, 4); }

// Whether a reader will believe it; where it does not end with its body, what stands behind that does not count.
bool HasSums(std::string image) {
  if (image.size() < kHeaderSize) return false;
  std::uint64_t bodySize = 0;
  std::memcpy(&bodySize, image.data() + kBodySize, sizeof bodySize);
  std::string const before = image;
  PutNumber(image, kHeaderSum, Crc32c({image.data(), kHeaderSum}));
  if (image != before || bodySize > image.size() - kHeaderSize) return false;
  PutNumber(image, kBodySum, Crc32c({image.data() + kHeaderSize, bodySize}));
  return image == before;
}

void FitSums(std::string &image) {
  if (image.size() < kHeaderSize) return;
  std::uint64_t const bodySize = image.size() - kHeaderSize;
  std::memcpy(image.data() + kBodySize, &bodySize, sizeof bodySize);
  PutNumber(image, kBodySum, Crc32c({image.data() + kHeaderSize, bodySize}));
  PutNumber(image, kHeaderSum, Crc32c({image.data(), kHeaderSum}));
}

using Images = std::array<std::string, SJournal::kTrees>;

struct Sound {
  std::array<SString, SJournal::kTrees> paths;
  std::string path = fuzz::SMemoryDirectory::Path("journal");
  Images before;
  Images after;
  std::string journal;  // that has the section decided

  Sound() {
    fuzz::LimitFiles();
    setenv("SpoolSync", "no", 1);
    paths = {SString(fuzz::SMemoryDirectory::Path("a")), SString(fuzz::SMemoryDirectory::Path("b"))};
    for (SString const &tree : paths) fuzz::MakeTree(fuzz::Bytes(tree));
    Change('1', nullptr);
    before = Read();
    SJournal written;
    written.Init(SString(path));
    Change('2', &written);
    after = Read();
  }

  Images Read() const { return {fuzz::FileBytes(fuzz::Bytes(paths[0])), fuzz::FileBytes(fuzz::Bytes(paths[1]))}; }

  // One section over both trees.
  void Change(char version, SJournal *log) {
    SBTree first(paths[0], 0);
    SBTree second(paths[1], 0);
    first.LockWrite();
    second.LockWrite();
    for (int i = 0; i < (version == '1' ? 12 : 20); ++i) {
      SString const key = "key " + SString(1000 + i);
      fuzz::Expect(first.Set(key, SString(version, 30)) && second.Set(key + version, "x"), "can't fill a tree");
    }
    fuzz::Expect(first.Stage() && second.Stage(), "can't stage pages");
    if (log != nullptr) {
      fuzz::Expect(log->Write({&first, &second}) == 1, "can't write a journal");
      journal = fuzz::FileBytes(path);
    }
    fuzz::Expect(first.Apply() && second.Apply(), "can't write pages");
    second.UnlockWrite();
    first.UnlockWrite();
  }
};

// The trees with some pages as they are to be.
Images Mixed(Sound const &sound, unsigned char which) {
  Images mixed = sound.before;
  unsigned bit = 0;
  for (size_t tree = 0; tree < mixed.size(); ++tree)
    for (size_t at = 0; at < sound.after[tree].size(); at += fuzz::kPageSize) {
      if ((which >> (bit++ % 8) & 1) == 0) continue;
      if (mixed[tree].size() < at + fuzz::kPageSize) mixed[tree].resize(at + fuzz::kPageSize);
      mixed[tree].replace(at, fuzz::kPageSize, sound.after[tree].substr(at, fuzz::kPageSize));
    }
  return mixed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  static Sound const sound;
  if (size < 2) return 0;
  std::string_view const rest = fuzz::View(data + 2, size - 2);
  bool const isRaw = data[0] == 'i';
  std::string journal(isRaw ? rest : std::string_view(sound.journal));
  if (!isRaw) fuzz::Damage(journal, rest);
  if (data[0] == 's') FitSums(journal);
  Images const found = Mixed(sound, data[1]);
  fuzz::PutFile(sound.path, journal);
  for (size_t tree = 0; tree < found.size(); ++tree) fuzz::PutFile(fuzz::Bytes(sound.paths[tree]), found[tree]);

  SJournal reader;
  reader.Init(SString(sound.path));
  bool const isPending = reader.IsPending();
  unsigned const result = reader.Replay(sound.paths);
  bool const isUnchanged = journal == sound.journal;
  if (!isUnchanged && HasSums(journal)) return 0;  // another journal, not a damaged one
  Images const now = sound.Read();
  fuzz::Expect(now == found || now == sound.after, "a journal was replayed in part");
  if (isUnchanged) {
    fuzz::Expect(isPending && result == 1 && now == sound.after, "a whole journal was not replayed");
    fuzz::Expect(!reader.IsPending(), "a journal stays when it was replayed");
  } else {
    fuzz::Expect(now == found, "a damaged journal was replayed");
    fuzz::Expect(result == 0 || !reader.IsPending(), "a journal that counts for nothing stays pending");
  }
  return 0;
}
