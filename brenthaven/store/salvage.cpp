#include "brenthaven/store/salvage.h"

#include <sys/stat.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/store/page.h"
#include "brenthaven/store/pagelayout.h"

using namespace pagelayout;

namespace {

constexpr std::uint32_t kMagic = 0x053162;
constexpr std::uint32_t kUsualPageSize = 16384;  // where the metadata do not say it
constexpr size_t kMetaPageSize = 8;              // offsets in page 0
constexpr size_t kMetaFree = 12;

class Pages {
public:
  explicit Pages(SString const &path) : _file(sys::Open(path, O_RDONLY)) {
    struct stat info;
    if (!_file.IsOpen() || sys::Fstat(_file.Get(), &info) != 0) return;
    unsigned char meta[20] = {};
    isOpen = sys::Pread(_file.Get(), meta, sizeof meta, 0) >= 0;
    bool const isSound =
        Number(meta) == kMagic && Number(meta + kMetaPageSize) >= 512 && Number(meta + kMetaPageSize) < 65536;
    pageSize = isSound ? Number(meta + kMetaPageSize) : kUsualPageSize;
    count = static_cast<std::uint32_t>(info.st_size / pageSize);
    firstFree = isSound ? Number(meta + kMetaFree) : kNoPage;
    isWhole = isSound && info.st_size % pageSize == 0;
  }

  // False for a page that can't be read, or is none.
  bool Read(std::uint32_t number, std::vector<unsigned char> &page) {
    page.resize(pageSize);
    off_t const at = static_cast<off_t>(number) * pageSize;
    return number != kNoPage && number < count &&
           sys::Pread(_file.Get(), page.data(), pageSize, at) == static_cast<ssize_t>(pageSize) &&
           IsSoundPage(page.data(), pageSize, number);
  }

  // Pages that are in no tree. Nothing where their list does not end.
  std::unordered_set<std::uint32_t> Free() {
    std::unordered_set<std::uint32_t> numbers;
    std::vector<unsigned char> page(pageSize);
    for (std::uint32_t number = firstFree; number != kNoPage;) {
      off_t const at = static_cast<off_t>(number) * pageSize;
      bool const isRead = number < count && numbers.insert(number).second &&
                          sys::Pread(_file.Get(), page.data(), pageSize, at) == static_cast<ssize_t>(pageSize);
      if (!isRead) return {};
      number = Number(page.data() + 8);
    }
    return numbers;
  }

  // The bytes that overflow pages hold from the given one on; false for a chain that breaks off.
  bool ReadLong(unsigned char const *reference, std::string &bytes) {
    std::uint32_t number = Number(reference);
    size_t left = Number(reference + 4);
    std::vector<unsigned char> page;
    bytes.clear();
    if (left / (pageSize - kHeaderSize) > count) return false;
    while (left > 0) {
      if (!Read(number, page) || (Number(page.data() + 12) & kTypes) != kOverflow) return false;
      size_t const part = std::min(left, pageSize - kHeaderSize);
      bytes.append(reinterpret_cast<char const *>(page.data()) + kHeaderSize, part);
      left -= part;
      number = Number(page.data() + 8);
    }
    return true;
  }

  bool isOpen = false;
  bool isWhole = false;
  std::uint32_t count = 0;
  size_t pageSize = kUsualPageSize;
  std::uint32_t firstFree = kNoPage;

private:
  SDescriptor _file;
};

SString TextOf(std::string const &bytes) { return SString(bytes.data(), static_cast<int>(bytes.size())); }

}  // namespace

SSalvage SalvageRecords(SString const &path,
                        std::function<void(SString const &key, SString const &value)> const &take) {
  Pages pages(path);
  if (!pages.isOpen) return {};
  SSalvage result{true, false, pages.isWhole};
  std::unordered_set<std::uint32_t> const free = pages.Free();
  std::vector<unsigned char> page;
  std::string key, value;
  for (std::uint32_t number = 1; number < pages.count; ++number) {
    if (free.contains(number)) continue;
    if (!pages.Read(number, page)) {
      result.isWhole = false;
      continue;
    }
    result.isKnown = true;
    if ((Number(page.data() + 12) & kTypes) != kLeaf) continue;
    for (size_t at = kHeaderSize; at < Offset(page.data() + 16); at += 2) {
      unsigned char const *entry = page.data() + Offset(page.data() + at);
      std::uint32_t const keySize = Number(entry), valueSize = Number(entry + 4);
      unsigned const flags = entry[8];
      char const *bytes = reinterpret_cast<char const *>(entry + kEntryHeader);
      key.assign(bytes, keySize);
      value.assign(bytes + keySize, valueSize);
      bool const isRead = ((flags & kLongKey) == 0 || pages.ReadLong(entry + kEntryHeader, key)) &&
                          ((flags & kLongValue) == 0 || pages.ReadLong(entry + kEntryHeader + keySize, value));
      if (isRead)
        take(TextOf(key), TextOf(value));
      else
        result.isWhole = false;
    }
  }
  return result;
}
