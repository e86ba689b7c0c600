// tests/fuzz/storefiles.h - small B-tree files and inputs that change a few of their bytes.
#pragma once
#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>
#include <map>

#include "brenthaven/store/db185.h"
#include "brenthaven/store/sbtree.h"
#include "tests/fuzz/fuzz.h"

namespace fuzz {

constexpr unsigned kPageSize = 512;  // the smallest that there is: whole trees in a few kilobytes

using Records = std::map<std::string, std::string>;

// An empty file whose pages are small; who opens it later keeps to their size.
inline void MakeTree(std::string const &path) {
  (void)unlink(path.c_str());
  SBTreeInfo info{};
  info.psize = kPageSize;
  char byte = 'x';
  SBTreeItem item{&byte, 1};
  SBTreeEngine *engine = dbopen(path.c_str(), O_RDWR | O_CREAT, 0660, kBTreeType, &info);
  // Without a change the engine writes nothing.
  if (engine == nullptr || engine->put(engine, &item, &item, 0) != 0 || engine->del(engine, &item, 0) != 0 ||
      engine->close(engine) != 0)
    Fail("can't make a tree", path);
}

// A number that says where it may lead: nowhere near all of the machine's memory or disk.
inline void LimitFiles() {
  constexpr rlim_t kLargest = 16 << 20;
  rlimit const limit = {kLargest, kLargest};
  signal(SIGXFSZ, SIG_IGN);
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) Fail("can't limit the size of files");
}

// Changes bytes as an input says, four bytes at a time: place (two bytes, low one first), what to do, and a byte for
// it. "=" sets the byte, "^" changes bits of it, "z" wipes the page, "s" fills the sector of 64 bytes, "c" cuts off
// what is there and behind.
inline void Damage(std::string &image, std::string_view changes) {
  for (; changes.size() >= 4 && !image.empty(); changes.remove_prefix(4)) {
    size_t const told = static_cast<unsigned char>(changes[0]) | static_cast<unsigned char>(changes[1]) << 8;
    size_t const at = told % image.size();
    auto const fill = [&](size_t unit, char byte) {
      size_t const start = at - at % unit;
      image.replace(start, std::min(unit, image.size() - start), std::min(unit, image.size() - start), byte);
    };
    switch (changes[2]) {
      case 'z':
        fill(kPageSize, '\0');
        break;
      case 's':
        fill(64, changes[3]);
        break;
      case 'c':
        image.resize(at);
        break;
      case '^':
        image[at] = static_cast<char>(image[at] ^ changes[3]);
        break;
      default:
        image[at] = changes[3];
    }
  }
}

}  // namespace fuzz
