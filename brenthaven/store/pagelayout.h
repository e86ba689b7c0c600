// brenthaven/store/pagelayout.h - where things stand in a page of a B-tree file. Used by this folder.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pagelayout {

inline constexpr std::uint32_t kNoPage = 0;       // page 0 holds metadata, so links use 0 for "none"
inline constexpr size_t kHeaderSize = 20;         // behind it the table of offsets
inline constexpr std::uint32_t kInternal = 0x01;  // one type in the low bits of a page's type word
inline constexpr std::uint32_t kLeaf = 0x02;
inline constexpr std::uint32_t kOverflow = 0x04;  // part of a long key or value
inline constexpr std::uint32_t kTypes = 0x1f;
inline constexpr unsigned kLongValue =
    0x01;  // entry flags: the bytes are number and size of what lies in overflow pages
inline constexpr unsigned kLongKey = 0x02;
inline constexpr size_t kEntryHeader = 9;            // two numbers and the flags
inline constexpr std::uint32_t kLongItem = 8;        // bytes in place of a long item
inline constexpr std::uint32_t kLargest = 1u << 30;  // no item is longer; keeps a made-up size from taking all memory

inline std::uint32_t Number(unsigned char const *at) {
  std::uint32_t number;
  std::memcpy(&number, at, sizeof number);
  return number;
}

inline std::uint16_t Offset(unsigned char const *at) {
  std::uint16_t offset;
  std::memcpy(&offset, at, sizeof offset);
  return offset;
}

}  // namespace pagelayout
